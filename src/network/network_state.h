#pragma once
// The machine's network configuration as one merged record: the addresses,
// servers, gateways, DNS suffixes, connection kinds and wireless networks of
// every adapter that is up and has an address, plus the host name. The record
// does not say which entry came from which adapter.
//
// Every list except the SSIDs is sorted and free of duplicates (see
// SortedList): IPv4 lists numerically, IPv6 lists by CompareAddress16, text
// lists by plain comparison of their characters (case-sensitive), connection
// kinds by number. SSIDs stay in the order found, repeats included.
//
// A value: copied out of the provider under its lock, read without one.
#include <cstdint>
#include <string>
#include <vector>

#include "network/ip_address.h"
#include "network/sorted_list.h"

namespace Product::Integration {

// The kind of connection an adapter gives. kOther is never stored in a state.
enum class ConnectionKind : int32_t {
    kEthernet = 0,
    kWireless = 1,
    kOther = 2,
};

// "Ethernet", "Wireless" or "Other".
const wchar_t* ConnectionKindName(ConnectionKind kind) noexcept;

struct NetworkState {
    struct IPv4Order {
        bool operator()(const qv::Network::IPv4& a, const qv::Network::IPv4& b) const noexcept {
            return qv::Network::IPv4::Less(a, b);
        }
    };
    struct IPv6Order {
        bool operator()(const qv::Network::IPv6& a, const qv::Network::IPv6& b) const noexcept {
            return qv::Network::IPv6::Less(a, b);
        }
    };
    struct TextOrder {
        bool operator()(const std::wstring& a, const std::wstring& b) const noexcept { return a < b; }
    };
    struct KindOrder {
        bool operator()(ConnectionKind a, ConnectionKind b) const noexcept {
            return static_cast<int32_t>(a) < static_cast<int32_t>(b);
        }
    };
    using IPv4List = qv::Network::SortedList<qv::Network::IPv4, IPv4Order>;
    using IPv6List = qv::Network::SortedList<qv::Network::IPv6, IPv6Order>;
    using TextList = qv::Network::SortedList<std::wstring, TextOrder>;
    using KindList = qv::Network::SortedList<ConnectionKind, KindOrder>;

    IPv4List ipv4Addresses;  // unicast
    IPv4List ipv4DnsServers;
    IPv4List ipv4Gateways;
    IPv4List ipv4WinsServers;
    IPv6List ipv6Addresses;  // unicast
    IPv6List ipv6DnsServers;
    IPv6List ipv6Gateways;
    IPv6List ipv6WinsServers;
    TextList dnsSuffixes;
    KindList connectionKinds;         // Ethernet and Wireless only
    std::vector<std::wstring> ssids;  // connected wireless networks, in the order found
    TextList adapterNames;            // the adapters' descriptions
    std::wstring hostName;

    // Inserts `kind` unless it is kOther.
    void AddConnectionKind(ConnectionKind kind);
    // Whether any IPv4 or IPv6 unicast address is present.
    bool HasUnicastAddress() const noexcept;
    // Folds `other` in: every sorted list as a sorted union. The SSIDs and the
    // host name are left as they are.
    void Merge(const NetworkState& other);

    // The text written to the log: adapter names, the addresses under "IP:",
    // "DNS:", "GATEWAY:" and "WINS:" (IPv4 then IPv6, each "address/prefix"),
    // the connection kinds and the host name, between two rules.
    std::wstring Dump() const;
};

// Equal when the addresses (prefix lengths ignored), servers, gateways, DNS
// suffixes, connection kinds and host name agree. The SSIDs and the adapter
// names take no part: a move to another wireless network, or an adapter
// renamed, is not a change of the configuration conditions depend on.
bool operator==(const NetworkState& a, const NetworkState& b);

}  // namespace Product::Integration
