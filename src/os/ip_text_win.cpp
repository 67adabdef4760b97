// winsock2.h before windows.h.
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// clang-format on

#include <cstring>

#include "os/ip_text.h"

namespace os {
namespace {

using Ipv4StringToAddressFn = LONG(NTAPI*)(PCWSTR, BOOLEAN, PCWSTR*, in_addr*);
using Ipv6StringToAddressFn = LONG(NTAPI*)(PCWSTR, PCWSTR*, in6_addr*);
using Ipv6AddressToStringFn = PWSTR(NTAPI*)(const in6_addr*, PWSTR);

// The entry of the already loaded "Ntdll.dll", or null.
template <class Fn>
Fn NtdllEntry(const char* name) {
    HMODULE ntdll = ::GetModuleHandleW(L"Ntdll.dll");
    return ntdll ? reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(ntdll, name))) : nullptr;
}

}  // namespace

AddressParse ParseIPv4(const std::wstring& text, std::array<uint8_t, 4>& out) {
    static const auto parse = NtdllEntry<Ipv4StringToAddressFn>("RtlIpv4StringToAddressW");
    if (!parse) return AddressParse::kUnavailable;
    PCWSTR terminator = nullptr;
    in_addr address{};
    if (parse(text.c_str(), TRUE, &terminator, &address) != 0) return AddressParse::kInvalid;
    if (terminator != text.c_str() + text.size()) return AddressParse::kInvalid;
    std::memcpy(out.data(), &address, 4);
    return AddressParse::kParsed;
}

AddressParse ParseIPv6(const std::wstring& text, std::array<uint8_t, 16>& out) {
    static const auto parse = NtdllEntry<Ipv6StringToAddressFn>("RtlIpv6StringToAddressW");
    if (!parse) return AddressParse::kUnavailable;
    PCWSTR terminator = nullptr;
    in6_addr address{};
    if (parse(text.c_str(), &terminator, &address) != 0) return AddressParse::kInvalid;
    if (terminator != text.c_str() + text.size()) return AddressParse::kInvalid;
    std::memcpy(out.data(), &address, 16);
    return AddressParse::kParsed;
}

std::optional<std::wstring> FormatIPv6(const std::array<uint8_t, 16>& address) {
    static const auto format = NtdllEntry<Ipv6AddressToStringFn>("RtlIpv6AddressToStringW");
    if (!format) return std::nullopt;
    in6_addr in{};
    std::memcpy(&in, address.data(), 16);
    wchar_t text[64] = {};
    format(&in, text);
    return std::wstring(text);
}

}  // namespace os
