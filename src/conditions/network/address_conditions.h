#pragma once
// The address conditions: true when the machine has an address of a kind
// inside a prefix ("network.IP" unicast addresses, "network.Gateway",
// "network.DNS" servers, "network.WINS" servers; "data"."address" such as
// "10.1.0.0/16" or "fe80::/10"), and the range condition ("network.IPRange":
// a unicast address between "data"."start" and "data"."end", both bounds
// inclusive, both of one family; a prefix there is read and ignored).
//
// Thread rules: those of ConditionNetworkBase; the parsed addresses are fixed
// once Init returned.
#include <cstdint>

#include "conditions/network/network_condition_base.h"
#include "network/ip_address.h"

namespace Product::Integration::ConditionManager {

enum class AddressFamilyKind : int32_t {
    kNone = -1,
    kIPv4 = 0,
    kIPv6 = 1,
};

class ConditionIPBase : public ConditionNetworkBase {
public:
    // Base Init, then "address": kInvalidParameter when missing ("Node
    // \"address\" not found. Invalid Json") or neither family reads it (the
    // IPv6 reader's status; kDependencyNotFound when the system's parser
    // cannot be bound).
    [[nodiscard]] int32_t Init(const InitData& data) override;

protected:
    // The pair of lists of the state this condition reads.
    virtual const NetworkState::IPv4List& FourList(const NetworkState& state) const = 0;
    virtual const NetworkState::IPv6List& SixList(const NetworkState& state) const = 0;
    // What those lists hold, as Observed names them ("addresses", "gateways"...).
    virtual const char* ListName() const = 0;
    bool Compute(const NetworkState& state) const final;
    // {"<list name>": [entries of the family asked for], "matched": entry or null}
    Json::Value Describe(const NetworkState& state) const final;

private:
    qv::Network::IPv4 ipv4_;
    qv::Network::IPv6 ipv6_;
    AddressFamilyKind kind_ = AddressFamilyKind::kNone;
};

class ConditionIP final : public ConditionIPBase {
public:
    static constexpr const wchar_t* kType = L"network.IP";

private:
    const NetworkState::IPv4List& FourList(const NetworkState& s) const override { return s.ipv4Addresses; }
    const NetworkState::IPv6List& SixList(const NetworkState& s) const override { return s.ipv6Addresses; }
    const char* ListName() const override { return "addresses"; }
};

class ConditionGateway final : public ConditionIPBase {
public:
    static constexpr const wchar_t* kType = L"network.Gateway";

private:
    const NetworkState::IPv4List& FourList(const NetworkState& s) const override { return s.ipv4Gateways; }
    const NetworkState::IPv6List& SixList(const NetworkState& s) const override { return s.ipv6Gateways; }
    const char* ListName() const override { return "gateways"; }
};

class ConditionDNS final : public ConditionIPBase {
public:
    static constexpr const wchar_t* kType = L"network.DNS";

private:
    const NetworkState::IPv4List& FourList(const NetworkState& s) const override { return s.ipv4DnsServers; }
    const NetworkState::IPv6List& SixList(const NetworkState& s) const override { return s.ipv6DnsServers; }
    const char* ListName() const override { return "dnsServers"; }
};

class ConditionWINS final : public ConditionIPBase {
public:
    static constexpr const wchar_t* kType = L"network.WINS";

private:
    const NetworkState::IPv4List& FourList(const NetworkState& s) const override { return s.ipv4WinsServers; }
    const NetworkState::IPv6List& SixList(const NetworkState& s) const override { return s.ipv6WinsServers; }
    const char* ListName() const override { return "winsServers"; }
};

class ConditionIPRange final : public ConditionNetworkBase {
public:
    static constexpr const wchar_t* kType = L"network.IPRange";

    // Base Init, then "start" and "end": kInvalidParameter when one is
    // missing, unreadable, or the two are not of one family.
    [[nodiscard]] int32_t Init(const InitData& data) override;

private:
    bool Compute(const NetworkState& state) const override;
    // {"addresses": [unicast addresses of the range's family], "matched": address or null}
    Json::Value Describe(const NetworkState& state) const override;

    qv::Network::IPv4 startIPv4_, endIPv4_;
    qv::Network::IPv6 startIPv6_, endIPv6_;
    AddressFamilyKind kind_ = AddressFamilyKind::kNone;
};

}  // namespace Product::Integration::ConditionManager
