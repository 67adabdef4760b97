// Adapters from GetAdaptersAddresses, asked twice: once without a buffer for
// the size, then into a zeroed buffer of that size.
// winsock2.h before windows.h, and both before the IP helper.
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
// clang-format on

#include <vector>

#include "os/adapters.h"

namespace os {
namespace {

// GAA_FLAG_INCLUDE_PREFIX | GAA_FLAG_SKIP_FRIENDLY_NAME | GAA_FLAG_INCLUDE_WINS_INFO | GAA_FLAG_INCLUDE_GATEWAYS
constexpr ULONG kFlags = 0xF0;
static_assert(kFlags == (GAA_FLAG_INCLUDE_PREFIX | GAA_FLAG_SKIP_FRIENDLY_NAME | GAA_FLAG_INCLUDE_WINS_INFO |
                         GAA_FLAG_INCLUDE_GATEWAYS));

IpAddress FromSocketAddress(const SOCKET_ADDRESS& address) {
    const sockaddr* sa = address.lpSockaddr;
    if (sa && sa->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
        std::array<uint8_t, 4> bytes;
        memcpy(bytes.data(), &in->sin_addr, 4);
        return IpAddress::V4(bytes);
    }
    if (sa && sa->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
        std::array<uint8_t, 16> bytes;
        memcpy(bytes.data(), &in6->sin6_addr, 16);
        return IpAddress::V6(bytes);
    }
    return IpAddress{};  // another family: kept, so that the caller sees and ignores it
}

// Every chain of the IP helper has Next and Address at the same places.
template <class Entry>
void AppendChain(const Entry* entry, std::vector<IpAddress>& out) {
    for (; entry; entry = entry->Next) out.push_back(FromSocketAddress(entry->Address));
}

AdapterRecord FromAdapter(const IP_ADAPTER_ADDRESSES& a) {
    AdapterRecord r;
    if (a.Description) r.description = a.Description;
    r.ifType = a.IfType;
    r.operStatus = a.OperStatus == IfOperStatusUp ? OperStatus::kUp : OperStatus::kNotUp;
    r.physicalAddress.assign(a.PhysicalAddress, a.PhysicalAddress + a.PhysicalAddressLength);
    AppendChain(a.FirstUnicastAddress, r.unicast);
    AppendChain(a.FirstDnsServerAddress, r.dnsServers);
    AppendChain(a.FirstWinsServerAddress, r.winsServers);
    AppendChain(a.FirstGatewayAddress, r.gateways);
    for (const IP_ADAPTER_DNS_SUFFIX* s = a.FirstDnsSuffix; s; s = s->Next) r.dnsSuffixChain.emplace_back(s->String);
    if (a.DnsSuffix) r.dnsSuffix = a.DnsSuffix;
    return r;
}

}  // namespace

Expected<Adapters> ReadAdapters() {
    ULONG size = 0;
    ULONG status = ::GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, nullptr, &size);
    if (status != ERROR_BUFFER_OVERFLOW) return Status::System(status, L"GetAdaptersAddresses");
    // ULONGLONG elements keep the records aligned as the structures need.
    std::vector<ULONGLONG> buffer((size + sizeof(ULONGLONG) - 1) / sizeof(ULONGLONG), 0);
    auto* first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
    status = ::GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, first, &size);
    if (status != ERROR_SUCCESS) return Status::System(status, L"GetAdaptersAddresses");
    Adapters list;
    for (const IP_ADAPTER_ADDRESSES* a = first; a; a = a->Next) list.push_back(FromAdapter(*a));
    return list;
}

Expected<std::wstring> ReadHostName() {
    DWORD length = 0;
    ::GetComputerNameExW(ComputerNameNetBIOS, nullptr, &length);  // learns the length, terminator included
    std::vector<wchar_t> buffer(length + 1);
    length = static_cast<DWORD>(buffer.size());
    if (!::GetComputerNameExW(ComputerNameNetBIOS, buffer.data(), &length))
        return Status::System(::GetLastError(), L"GetComputerNameExW");
    return std::wstring(buffer.data(), length);
}

}  // namespace os
