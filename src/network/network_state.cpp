#include "network/network_state.h"

#include <algorithm>

namespace Product::Integration {

const wchar_t* ConnectionKindName(ConnectionKind kind) noexcept {
    switch (kind) {
        case ConnectionKind::kEthernet:
            return L"Ethernet";
        case ConnectionKind::kWireless:
            return L"Wireless";
        case ConnectionKind::kOther:
            break;
    }
    return L"Other";
}

void NetworkState::AddConnectionKind(ConnectionKind kind) {
    if (kind != ConnectionKind::kOther) connectionKinds.Insert(kind);
}

bool NetworkState::HasUnicastAddress() const noexcept { return !ipv4Addresses.empty() || !ipv6Addresses.empty(); }

void NetworkState::Merge(const NetworkState& other) {
    ipv4Addresses.Merge(other.ipv4Addresses);
    ipv4DnsServers.Merge(other.ipv4DnsServers);
    ipv4Gateways.Merge(other.ipv4Gateways);
    ipv4WinsServers.Merge(other.ipv4WinsServers);
    ipv6Addresses.Merge(other.ipv6Addresses);
    ipv6DnsServers.Merge(other.ipv6DnsServers);
    ipv6Gateways.Merge(other.ipv6Gateways);
    ipv6WinsServers.Merge(other.ipv6WinsServers);
    dnsSuffixes.Merge(other.dnsSuffixes);
    connectionKinds.Merge(other.connectionKinds);
    adapterNames.Merge(other.adapterNames);
}

namespace {

constexpr const wchar_t* kRule = L"___________________________\n";

void DumpAddresses(std::wstring& out, const wchar_t* heading, const NetworkState::IPv4List& v4,
                   const NetworkState::IPv6List& v6) {
    out += heading;
    for (const auto& a : v4) out += L"    " + a.ToString() + L"\n";
    for (const auto& a : v6) out += L"    " + a.ToString() + L"\n";
}

template <class List>
bool SameAddresses(const List& a, const List& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& x, const auto& y) { return x.address == y.address; });
}

}  // namespace

std::wstring NetworkState::Dump() const {
    std::wstring out = kRule;
    out += L"Adapter(s):\n";
    for (const auto& name : adapterNames) out += L"    " + name + L"\n";
    out += L"\n  IP Data:\n";
    DumpAddresses(out, L"IP:\n", ipv4Addresses, ipv6Addresses);
    DumpAddresses(out, L"DNS:\n", ipv4DnsServers, ipv6DnsServers);
    DumpAddresses(out, L"GATEWAY:\n", ipv4Gateways, ipv6Gateways);
    DumpAddresses(out, L"WINS:\n", ipv4WinsServers, ipv6WinsServers);
    out += L"ConnectionType:\n";
    for (ConnectionKind kind : connectionKinds) out += std::wstring(L"    ") + ConnectionKindName(kind) + L"\n";
    out += L"Hostname:\n    " + hostName;
    out += std::wstring(L"\n") + kRule;
    return out;
}

bool operator==(const NetworkState& a, const NetworkState& b) {
    return a.dnsSuffixes.size() == b.dnsSuffixes.size() && a.connectionKinds.size() == b.connectionKinds.size() &&
           SameAddresses(a.ipv4Addresses, b.ipv4Addresses) && SameAddresses(a.ipv4DnsServers, b.ipv4DnsServers) &&
           SameAddresses(a.ipv4Gateways, b.ipv4Gateways) && SameAddresses(a.ipv4WinsServers, b.ipv4WinsServers) &&
           SameAddresses(a.ipv6Addresses, b.ipv6Addresses) && SameAddresses(a.ipv6DnsServers, b.ipv6DnsServers) &&
           SameAddresses(a.ipv6Gateways, b.ipv6Gateways) && SameAddresses(a.ipv6WinsServers, b.ipv6WinsServers) &&
           a.dnsSuffixes.items() == b.dnsSuffixes.items() && a.connectionKinds.items() == b.connectionKinds.items() &&
           a.hostName == b.hostName;
}

}  // namespace Product::Integration
