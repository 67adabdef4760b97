#include "network/adapter_convert.h"

#include <algorithm>

#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration {
namespace {

constexpr const wchar_t* kConvert = L"Product::Integration::NetworkProvider::Convert";

void Insert(const os::IpAddress& address, NetworkState::IPv4List& v4, NetworkState::IPv6List& v6) {
    switch (address.family) {
        case os::IpAddress::Family::kIPv4: {
            qv::Network::IPv4 ip;
            std::copy(address.bytes.begin(), address.bytes.begin() + 4, ip.address.begin());
            v4.Insert(ip);
            break;
        }
        case os::IpAddress::Family::kIPv6: {
            qv::Network::IPv6 ip;
            ip.address = address.bytes;
            v6.Insert(ip);
            break;
        }
        case os::IpAddress::Family::kOther:
            break;
    }
}

void InsertAll(const std::vector<os::IpAddress>& addresses, NetworkState::IPv4List& v4, NetworkState::IPv6List& v6) {
    for (const os::IpAddress& address : addresses) Insert(address, v4, v6);
}

}  // namespace

int32_t Convert(const os::AdapterRecord* adapter, NetworkState& state, AdapterTypeExtractor& types) {
    if (!adapter) {
        logging::Log(logging::kError, kConvert, L"Null adapter");
        return qv::status::kInvalidParameter;
    }
    if (adapter->operStatus != os::OperStatus::kUp) {
        logging::Log(logging::kDetail, kConvert, L"Adapter [%s] is NOT up and able to pass packets",
                     adapter->description.c_str());
        return qv::status::kSuccess;
    }
    NetworkState own;
    own.adapterNames.Insert(adapter->description);
    InsertAll(adapter->unicast, own.ipv4Addresses, own.ipv6Addresses);
    InsertAll(adapter->dnsServers, own.ipv4DnsServers, own.ipv6DnsServers);
    InsertAll(adapter->winsServers, own.ipv4WinsServers, own.ipv6WinsServers);
    InsertAll(adapter->gateways, own.ipv4Gateways, own.ipv6Gateways);
    if (!own.HasUnicastAddress()) return qv::status::kSuccess;

    for (const std::wstring& suffix : adapter->dnsSuffixChain) own.dnsSuffixes.Insert(suffix);
    if (!adapter->dnsSuffix.empty()) own.dnsSuffixes.Insert(adapter->dnsSuffix);
    own.AddConnectionKind(types.Classify(adapter->ifType, adapter->physicalAddress));

    if (logging::CLogDLL::Exists()) logging::Log(logging::kDetail, kConvert, L"%s", own.Dump().c_str());
    state.Merge(own);
    return qv::status::kSuccess;
}

}  // namespace Product::Integration
