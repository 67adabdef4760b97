#include <arpa/inet.h>

#include <algorithm>
#include <optional>

#include "os/ip_text.h"
#include "os/utf8.h"

// The parsers follow the strict text forms of the Windows routines, so that a
// rule's address reads the same on both builds:
// - IPv4: exactly four decimal parts of at most three digits, value at most
//   255, no leading zero ("0" itself is fine).
// - IPv6: up to eight groups of one to four hexadecimal digits separated by
//   ':', at most one "::" standing for at least one zero group, and
//   optionally four dotted decimal parts in place of the last two groups;
//   in that embedded form each part has one to three decimal digits, leading
//   zeros allowed, value at most 255. No zone, no brackets, no blanks.
// The whole text must be the address.
namespace os {
namespace {

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

int HexValue(wchar_t c) {
    if (IsDigit(c)) return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

enum class LeadingZeros : bool { kRefused, kAllowed };

// Reads four dotted decimal parts from text[pos..end) into `out`.
bool ParseDotted(const std::wstring& text, size_t pos, size_t end, LeadingZeros zeros, uint8_t* out) {
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (pos >= end || text[pos] != L'.') return false;
            ++pos;
        }
        const size_t start = pos;
        unsigned value = 0;
        while (pos < end && IsDigit(text[pos]) && pos - start < 3)
            value = value * 10 + static_cast<unsigned>(text[pos++] - L'0');
        const size_t digits = pos - start;
        if (digits == 0 || value > 255) return false;
        if (zeros == LeadingZeros::kRefused && digits > 1 && text[start] == L'0') return false;
        out[part] = static_cast<uint8_t>(value);
    }
    return pos == end;
}

// An IPv6 text as read, before its "::" is expanded.
struct SixParts {
    std::array<uint16_t, 8> groups{};
    size_t count = 0;                              // groups read
    std::optional<size_t> gap;                     // where "::" stands, in groups
    std::optional<std::array<uint8_t, 4>> dotted;  // the embedded IPv4 form, last
};

// Reads the group at `pos`, or the embedded dotted form when a '.' follows
// the digits (that form ends the text); `pos` moves past it.
bool ReadGroup(const std::wstring& text, size_t& pos, SixParts& parts) {
    const size_t end = text.size();
    size_t digitsEnd = pos;
    while (digitsEnd < end && HexValue(text[digitsEnd]) >= 0) ++digitsEnd;
    if (digitsEnd < end && text[digitsEnd] == L'.') {
        std::array<uint8_t, 4> dotted{};
        if (parts.count + 2 > 8 || !ParseDotted(text, pos, end, LeadingZeros::kAllowed, dotted.data())) return false;
        parts.dotted = dotted;
        pos = end;
        return true;
    }
    const size_t digits = digitsEnd - pos;
    if (digits == 0 || digits > 4 || parts.count == 8) return false;
    uint16_t value = 0;
    for (size_t i = pos; i < digitsEnd; ++i) value = static_cast<uint16_t>(value * 16 + HexValue(text[i]));
    parts.groups[parts.count++] = value;
    pos = digitsEnd;
    return true;
}

// Reads the ':' or "::" after a group at `pos`; a single ':' must be followed
// by another group, and only one "::" may stand in the text.
bool ReadSeparator(const std::wstring& text, size_t& pos, SixParts& parts) {
    const size_t end = text.size();
    if (text[pos] != L':') return false;
    ++pos;
    if (pos < end && text[pos] == L':') {
        if (parts.gap) return false;
        parts.gap = parts.count;
        ++pos;
        return true;
    }
    return pos < end;  // not a single ':' at the end
}

bool ReadSixParts(const std::wstring& text, SixParts& parts) {
    size_t pos = 0;
    if (text.starts_with(L"::")) {
        parts.gap = 0;
        pos = 2;
    } else if (text.starts_with(L':')) {
        return false;
    }
    while (pos < text.size()) {
        if (!ReadGroup(text, pos, parts)) return false;
        if (pos == text.size()) break;
        if (!ReadSeparator(text, pos, parts)) return false;
    }
    return true;
}

// The sixteen bytes of `parts`, the "::" standing for the groups missing;
// false when there are too few groups without one or too many with it.
bool Expand(const SixParts& parts, std::array<uint8_t, 16>& out) {
    const size_t total = parts.count + (parts.dotted ? 2 : 0);
    if (parts.gap ? total > 7 : total != 8) return false;
    std::array<uint8_t, 16> bytes{};
    const size_t zeroGroups = 8 - total;
    size_t at = 0;
    for (size_t i = 0; i < parts.count; ++i) {
        if (parts.gap && i == *parts.gap) at += zeroGroups;
        bytes[2 * at] = static_cast<uint8_t>(parts.groups[i] >> 8);
        bytes[2 * at + 1] = static_cast<uint8_t>(parts.groups[i] & 0xff);
        ++at;
    }
    if (parts.dotted) std::copy(parts.dotted->begin(), parts.dotted->end(), bytes.begin() + 12);
    out = bytes;
    return true;
}

bool ParseSix(const std::wstring& text, std::array<uint8_t, 16>& out) {
    SixParts parts;
    return ReadSixParts(text, parts) && Expand(parts, out);
}

}  // namespace

AddressParse ParseIPv4(const std::wstring& text, std::array<uint8_t, 4>& out) {
    std::array<uint8_t, 4> bytes{};
    if (!ParseDotted(text, 0, text.size(), LeadingZeros::kRefused, bytes.data())) return AddressParse::kInvalid;
    out = bytes;
    return AddressParse::kParsed;
}

AddressParse ParseIPv6(const std::wstring& text, std::array<uint8_t, 16>& out) {
    return ParseSix(text, out) ? AddressParse::kParsed : AddressParse::kInvalid;
}

std::optional<std::wstring> FormatIPv6(const std::array<uint8_t, 16>& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (!::inet_ntop(AF_INET6, address.data(), text, sizeof text)) return std::nullopt;
    return Utf8ToWideLossy(text);
}

}  // namespace os
