#pragma once
// Conditions on the names and kinds of the machine's connections:
// - "network.DNSSuffix": a DNS suffix of the state equals "data"."suffix",
//   ignoring the case of A-Z (whole-text equality; no sub-domains).
// - "network.Hostname": the host name matches the pattern "data"."address"
//   ("*" any run, "?" one character; see HostnamePattern).
// - "network.ConnectionType": "data"."type" "wifi" or "ethernet" (exactly);
//   with "wifi" an optional "data"."ssid" instead asks for that wireless
//   network (case-sensitive) whatever the adapters' kinds; an empty "ssid"
//   counts as none.
//
// Thread rules: those of ConditionNetworkBase; parameters are fixed once Init
// returned.
#include <cstdint>
#include <optional>
#include <string>

#include "conditions/network/hostname_pattern.h"
#include "conditions/network/network_condition_base.h"

namespace Product::Integration::ConditionManager {

class ConditionDNSSuffix final : public ConditionNetworkBase {
public:
    static constexpr const wchar_t* kType = L"network.DNSSuffix";
    // Base Init, then "suffix" (kInvalidParameter when missing).
    [[nodiscard]] int32_t Init(const InitData& data) override;

private:
    bool Compute(const NetworkState& state) const override;
    // {"suffixes": [the machine's DNS suffixes], "matched": suffix or null}
    Json::Value Describe(const NetworkState& state) const override;
    std::wstring suffix_;
};

class ConditionHostname final : public ConditionNetworkBase {
public:
    static constexpr const wchar_t* kType = L"network.Hostname";
    // Base Init, then "address": kInvalidParameter when missing or empty.
    [[nodiscard]] int32_t Init(const InitData& data) override;

private:
    bool Compute(const NetworkState& state) const override;
    // {"hostName": the computer's name, "matched": true | false}
    Json::Value Describe(const NetworkState& state) const override;
    std::wstring pattern_;
    std::optional<HostnamePattern> matcher_;
};

class ConditionConnectionType final : public ConditionNetworkBase {
public:
    static constexpr const wchar_t* kType = L"network.ConnectionType";
    // Base Init, then "type" (and with "wifi" an optional "ssid"):
    // kInvalidParameter when "type" is missing or another word, or "ssid" is
    // not text.
    [[nodiscard]] int32_t Init(const InitData& data) override;

private:
    bool Compute(const NetworkState& state) const override;
    // With an SSID {"ssids": [connected networks], "matched": SSID or null};
    // without {"connectionKinds": ["Ethernet" | "Wireless"], "matched": kind or null}
    Json::Value Describe(const NetworkState& state) const override;
    ConnectionKind kind_ = ConnectionKind::kEthernet;
    std::optional<std::wstring> ssid_;
};

}  // namespace Product::Integration::ConditionManager
