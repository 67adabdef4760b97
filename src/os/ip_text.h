#pragma once
// IP addresses to and from text.
//
// Windows: RtlIpv4StringToAddressW (strict), RtlIpv6StringToAddressW and
// RtlIpv6AddressToStringW, bound at run time from the already loaded
// "Ntdll.dll". Linux: parsers of our own that accept and refuse exactly the
// texts the Windows routines do (with the check that the whole text was
// read), and inet_ntop.
//
// Pure functions of their arguments; any thread.
#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace os {

enum class AddressParse : uint8_t {
    kParsed,
    kInvalid,      // not an address of that family, or text after it
    kUnavailable,  // the system's routine could not be bound
};

// Four dotted decimal parts without leading zeros ("10.0.0.1"); the whole of
// `text` must be the address.
AddressParse ParseIPv4(const std::wstring& text, std::array<uint8_t, 4>& out);
// Any IPv6 text form without a zone or brackets ("2001:db8::1",
// "::ffff:1.2.3.4"); the whole of `text` must be the address.
AddressParse ParseIPv6(const std::wstring& text, std::array<uint8_t, 16>& out);
// The system's text of an IPv6 address ("2001:db8::2:1"); null when the
// routine could not be bound.
std::optional<std::wstring> FormatIPv6(const std::array<uint8_t, 16>& address);

}  // namespace os
