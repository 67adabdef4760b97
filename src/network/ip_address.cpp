#include "network/ip_address.h"

#include <cwchar>

#include "os/ip_text.h"
#include "qv/status.h"

namespace qv::Network {
namespace {

// Splits `text` at its last '/' into the address and the prefix; the prefix
// text must be empty (giving `full`) or 1 to 3 digits of value at most `full`.
bool SplitPrefix(const std::wstring& text, uint32_t full, std::wstring& address, uint32_t& prefix) {
    const size_t slash = text.rfind(L'/');
    address = text.substr(0, slash);
    const std::wstring digits = slash == std::wstring::npos ? std::wstring() : text.substr(slash + 1);
    if (digits.empty()) {
        prefix = full;
        return true;
    }
    if (digits.size() > 3) return false;
    uint32_t value = 0;
    for (wchar_t c : digits) {
        if (c < L'0' || c > L'9') return false;
        value = value * 10 + static_cast<uint32_t>(c - L'0');
    }
    if (value > full) return false;
    prefix = value;
    return true;
}

int32_t StatusOf(os::AddressParse parse) {
    switch (parse) {
        case os::AddressParse::kParsed:
            return status::kSuccess;
        case os::AddressParse::kUnavailable:
            return status::kDependencyNotFound;
        case os::AddressParse::kInvalid:
            break;
    }
    return status::kInvalidParameter;
}

// "<address>[/<prefix>]" into `out` (changed only on success) with the
// system's strict address parser `parseAddress`.
template <class Address, class Parser>
int32_t Parse(Address& out, const std::wstring& text, Parser parseAddress) {
    std::wstring addressText;
    uint32_t prefix = Address::kFullPrefix;
    if (!SplitPrefix(text, Address::kFullPrefix, addressText, prefix)) return status::kInvalidParameter;
    decltype(out.address) bytes{};
    if (const int32_t s = StatusOf(parseAddress(addressText, bytes)); s != status::kSuccess) return s;
    out.address = bytes;
    out.prefix = prefix;
    return status::kSuccess;
}

}  // namespace

int32_t IPv4::FromString(IPv4& out, const std::wstring& text) { return Parse(out, text, os::ParseIPv4); }

std::wstring IPv4::ToString(Form form) const {
    wchar_t text[32];
    std::swprintf(text, 32, L"%d.%d.%d.%d", address[0], address[1], address[2], address[3]);
    if (form == Form::kAddress) return text;
    return std::wstring(text) + L"/" + std::to_wstring(prefix);
}

int CompareAddress16(const uint8_t* a, const uint8_t* b) noexcept {
    int result = 0;
    for (int i = 0; i < 16; ++i) {
        if (a[i] < b[i])
            result = -1;
        else if (a[i] > b[i])
            result = 1;
    }
    return result;
}

int32_t IPv6::FromString(IPv6& out, const std::wstring& text) { return Parse(out, text, os::ParseIPv6); }

std::wstring IPv6::ToString(Form form) const {
    const std::wstring text = os::FormatIPv6(address).value_or(L"");
    if (form == Form::kAddress) return text;
    return text + L"/" + std::to_wstring(prefix);
}

}  // namespace qv::Network
