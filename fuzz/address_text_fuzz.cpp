// The address texts of the network conditions, against the C library's
// inet_pton: the same texts are accepted and read to the same bytes, but for
// the one documented difference (the Windows routines the parsers follow
// accept leading zeros in the dotted tail of an IPv6 text, "::ffff:01.2.3.4",
// which inet_pton refuses). FromString then splits off the prefix length.
#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "network/ip_address.h"
#include "os/ip_text.h"

namespace {

bool IsAscii(const std::wstring& text) {
    for (wchar_t c : text)
        if (c <= 0 || c > 0x7F) return false;
    return true;
}

// Whether the dotted tail of an IPv6 text has a part written with a leading zero.
bool DottedTailHasLeadingZero(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || text.find('.', colon) == std::string::npos) return false;
    for (size_t at = colon + 1; at < text.size(); ++at) {
        const bool partStart = at == colon + 1 || text[at - 1] == '.';
        if (partStart && text[at] == '0' && at + 1 < text.size() && text[at + 1] >= '0' && text[at + 1] <= '9')
            return true;
    }
    return false;
}

// FromString: split at the last '/', the prefix 1 to 3 digits up to `full`
// (none, or nothing after the '/', is the full length).
template <class Address, size_t N>
void CheckPrefix(const std::wstring& text, uint32_t full,
                 os::AddressParse (*parse)(const std::wstring&, std::array<uint8_t, N>&)) {
    Address address;
    const bool read = Address::FromString(address, text) == 0;
    const size_t slash = text.rfind(L'/');
    const std::wstring addressText = slash == std::wstring::npos ? text : text.substr(0, slash);
    const std::wstring prefixText = slash == std::wstring::npos ? L"" : text.substr(slash + 1);
    std::array<uint8_t, N> bytes{};
    bool expected = parse(addressText, bytes) == os::AddressParse::kParsed;
    uint32_t prefix = full;
    if (expected && !prefixText.empty()) {
        expected = prefixText.size() <= 3;
        prefix = 0;
        for (wchar_t c : prefixText) {
            expected = expected && c >= L'0' && c <= L'9';
            prefix = prefix * 10 + static_cast<uint32_t>(c - L'0');
        }
        expected = expected && prefix <= full;
    }
    FUZZ_CHECK(read == expected, "FromString %s what its parts say", read ? "accepts more than" : "refuses");
    if (read) FUZZ_CHECK(address.prefix == prefix && address.address == bytes, "FromString reads other values");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every byte a character, so that texts beyond ASCII come up too.
    std::wstring text(data, data + size);
    const bool comparable = IsAscii(text);
    const std::string narrow(text.begin(), text.end());

    std::array<uint8_t, 4> four{};
    const bool ours4 = os::ParseIPv4(text, four) == os::AddressParse::kParsed;
    std::array<uint8_t, 16> six{};
    const bool ours6 = os::ParseIPv6(text, six) == os::AddressParse::kParsed;
    if (!comparable) {
        FUZZ_CHECK(!ours4 && !ours6, "a text beyond ASCII (or holding NUL) is read as an address");
    } else {
        uint8_t theirs[16];
        const bool pton4 = inet_pton(AF_INET, narrow.c_str(), theirs) == 1;
        FUZZ_CHECK(ours4 == pton4, "IPv4 \"%s\": ours %d, inet_pton %d", narrow.c_str(), ours4, pton4);
        if (ours4) FUZZ_CHECK(std::memcmp(four.data(), theirs, 4) == 0, "IPv4 \"%s\" read differently", narrow.c_str());
        const bool pton6 = inet_pton(AF_INET6, narrow.c_str(), theirs) == 1;
        if (ours6 && !pton6)
            FUZZ_CHECK(DottedTailHasLeadingZero(narrow), "IPv6 \"%s\" accepted, inet_pton refuses", narrow.c_str());
        else
            FUZZ_CHECK(ours6 == pton6, "IPv6 \"%s\": ours %d, inet_pton %d", narrow.c_str(), ours6, pton6);
        if (ours6 && pton6)
            FUZZ_CHECK(std::memcmp(six.data(), theirs, 16) == 0, "IPv6 \"%s\" read differently", narrow.c_str());
    }
    CheckPrefix<qv::Network::IPv4, 4>(text, qv::Network::IPv4::kFullPrefix, &os::ParseIPv4);
    CheckPrefix<qv::Network::IPv6, 16>(text, 128, &os::ParseIPv6);
    return 0;
}
