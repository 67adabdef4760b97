#include <arpa/inet.h>

#include <cstring>

#include "os/ip_text.h"
#include "os/utf8.h"

namespace os {
namespace {

// inet_pton reads up to a NUL, so text holding one is not one address.
std::optional<std::string> Narrow(const std::wstring& text) {
    if (text.find(L'\0') != std::wstring::npos) return std::nullopt;
    return WideToUtf8(text);
}

template <size_t N>
AddressParse Parse(int family, const std::wstring& text, std::array<uint8_t, N>& out) {
    auto narrow = Narrow(text);
    if (!narrow) return AddressParse::kInvalid;
    std::array<uint8_t, N> bytes{};
    if (::inet_pton(family, narrow->c_str(), bytes.data()) != 1) return AddressParse::kInvalid;
    out = bytes;
    return AddressParse::kParsed;
}

}  // namespace

AddressParse ParseIPv4(const std::wstring& text, std::array<uint8_t, 4>& out) { return Parse(AF_INET, text, out); }

AddressParse ParseIPv6(const std::wstring& text, std::array<uint8_t, 16>& out) { return Parse(AF_INET6, text, out); }

std::optional<std::wstring> FormatIPv6(const std::array<uint8_t, 16>& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (!::inet_ntop(AF_INET6, address.data(), text, sizeof text)) return std::nullopt;
    return Utf8ToWideLossy(text);
}

}  // namespace os
