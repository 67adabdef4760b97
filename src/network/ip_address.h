#pragma once
// IPv4 and IPv6 addresses with a prefix length, as the network state keeps
// them and the network conditions read them.
//
// Addresses are kept in network byte order (the bytes as they go on the
// wire). Addresses read from adapters carry the full prefix (32 or 128).
//
// Orders:
// - IPv4: numeric, the address read as a big-endian number (Less).
// - IPv6: CompareAddress16, which decides by the LAST byte in which two
//   addresses differ (byte 15 weighs most). It is not the numeric order;
//   range tests rely on it as it is.
//
// Values; any thread.
#include <array>
#include <compare>
#include <cstdint>
#include <string>

namespace qv::Network {

struct IPv4 {
    static constexpr uint32_t kFullPrefix = 32;

    std::array<uint8_t, 4> address{};
    uint32_t prefix = kFullPrefix;

    // The address as a number (big-endian read): 10.0.0.1 is 0x0A000001.
    uint32_t Value() const noexcept {
        return (uint32_t{address[0]} << 24) | (uint32_t{address[1]} << 16) | (uint32_t{address[2]} << 8) |
               uint32_t{address[3]};
    }
    // Numeric order of the addresses; the prefix plays no part.
    static bool Less(const IPv4& a, const IPv4& b) noexcept { return a.Value() < b.Value(); }

    // Reads "a.b.c.d" or "a.b.c.d/p". Split at the last '/': no prefix text
    // (none, or nothing after the '/') gives 32; otherwise 1 to 3 decimal
    // digits of value at most 32. The address part must be exactly four
    // decimal parts without leading zeros. 0; kInvalidParameter for bad
    // text (`out` unchanged); kDependencyNotFound when the system's parser
    // cannot be bound.
    [[nodiscard]] static int32_t FromString(IPv4& out, const std::wstring& text);
    // "a.b.c.d", or "a.b.c.d/p" when `withPrefix`.
    enum class Form : uint8_t { kAddress, kWithPrefix };
    std::wstring ToString(Form form = Form::kWithPrefix) const;
};

// -1, 0 or +1 by the last byte (index 15 down to 0) in which `a` and `b`
// differ: 2001:db8::2:1 sorts before 2001:db8::1:2.
int CompareAddress16(const uint8_t* a, const uint8_t* b) noexcept;

struct IPv6 {
    static constexpr uint32_t kFullPrefix = 128;

    std::array<uint8_t, 16> address{};
    uint32_t prefix = kFullPrefix;

    static bool Less(const IPv6& a, const IPv6& b) noexcept {
        return CompareAddress16(a.address.data(), b.address.data()) < 0;
    }

    // As IPv4::FromString with 128 in place of 32, for any IPv6 text form
    // without zone or brackets.
    [[nodiscard]] static int32_t FromString(IPv6& out, const std::wstring& text);
    // The system's text of the address ("2001:db8::1"), with "/p" when
    // asked; "" when the system's formatter cannot be bound.
    using Form = IPv4::Form;
    std::wstring ToString(Form form = Form::kWithPrefix) const;
};

}  // namespace qv::Network
