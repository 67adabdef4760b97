// Text forms and orders of the address types the network state keeps.
#include <gtest/gtest.h>

#include <array>

#include "network/ip_address.h"
#include "network/network_state.h"
#include "qv/status.h"

namespace {

using qv::Network::IPv4;
using qv::Network::IPv6;

IPv6 Six(const wchar_t* text) {
    IPv6 a;
    EXPECT_EQ(IPv6::FromString(a, text), 0) << "bad test address";
    return a;
}

// The address texts each parser accepts, and texts it refuses, as the
// Windows routines answer them (with the whole text read); the Linux parsers
// must agree on every one. Prefixes are split off before, so no '/' here.
struct AddressCase {
    const wchar_t* text;
    bool accepted;
};
const AddressCase kIPv4Texts[] = {
    {L"10.0.0.1", true},
    {L"0.0.0.0", true},
    {L"255.255.255.255", true},
    {L"0.1.2.3", true},
    {L"256.0.0.1", false},
    {L"010.0.0.1", false},
    {L"1.2.3.04", false},
    {L"0.0.0.00", false},
    {L"00.0.0.0", false},
    {L"1.2.3", false},
    {L"1.2.3.4.5", false},
    {L"0x10.0.0.1", false},
    {L"0X1.0.0.1", false},
    {L" 1.2.3.4", false},
    {L"1.2.3.4 ", false},
    {L"1..2.3", false},
    {L"", false},
    {L"4294967295", false},
    {L"1.2.3.255x", false},
    {L"1.2.3.-1", false},
    {L"+1.2.3.4", false},
    {L"1.2.3.+4", false},
    {L"1.2.3.4.", false},
    {L"1.2.3.", false},
    {L"1.2.3.4\t", false},
    {L"\xff11"
     L".2.3.4",
     false},
    {L"1.2.3.0255", false},
    {L"999.1.1.1", false},
    {L"1.2.3.4:80", false},
    {L"a.b.c.d", false},
    {L"1.2.3.1000", false},
    {L"01.1.1.1", false},
    {L"127.1", false},
    {L"1e1.0.0.1", false},
    {L".1.2.3", false},
    {L"1.2.3.4..", false},
    {L"1.2.3.00", false},
    {L"0.0.0.0000000", false},
    {L"1.2.3.4%1", false},
    {L"::1", false},
    {L"1.2.3.4x", false},
    {L"0x1", false},
    {L"1", false},
};
const AddressCase kIPv6Texts[] = {
    {L"::1", true},
    {L"::", true},
    {L"2001:db8::1", true},
    {L"2001:DB8::1", true},
    {L"::ffff:1.2.3.4", true},
    {L"1:2:3:4:5:6:7:8", true},
    {L"2001:db8:0:0:0:0:2:1", true},
    {L"1:2:3:4:5:6:7::", true},
    {L"::1:2:3:4:5:6:7", true},
    {L"1::", true},
    {L"0001::", true},
    {L"::ffff:01.2.3.4", true},
    {L"::ffff:1.2.3.04", true},
    {L"::1.2.3.4", true},
    {L"1:2:3:4:5:6:1.2.3.4", true},
    {L"FFFF::", true},
    {L"::FfFf", true},
    {L"0:0:0:0:0:0:0:0", true},
    {L"1::1.2.3.4", true},
    {L"a:b:c:d:e:f:0:1", true},
    {L"::0.0.0.0", true},
    {L"1:2:3:4:5::1.2.3.4", true},
    {L"::01.2.3.4", true},
    {L"::1.2.3.04", true},
    {L"::FFFF:1.2.3.4", true},
    {L"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true},
    {L"fe80::1%5", false},
    {L"1:2:3:4:5:6:7:8:9", false},
    {L"1::2::3", false},
    {L"::0:0:0:0:0:0:0:0", false},
    {L"2001:db8::1 ", false},
    {L"02001:db8::1", false},
    {L"::1.2.3", false},
    {L"[::1]", false},
    {L"1.2.3.4", false},
    {L"", false},
    {L":1", false},
    {L":::", false},
    {L"1:", false},
    {L":1::", false},
    {L":", false},
    {L"1:2:3:4:5:6:7", false},
    {L"1:2:3:4:5:6:7:8::", false},
    {L"::1:2:3:4:5:6:7:8", false},
    {L"1:2:3:4::5:6:7:8", false},
    {L"00001::", false},
    {L"g::", false},
    {L"::ffff:256.1.1.1", false},
    {L"1.2.3.4::", false},
    {L"::1.2.3.4:5", false},
    {L"1:2:3:4:5:6:7:1.2.3.4", false},
    {L"::ffff:1.2.3.4.5", false},
    {L"::ffff:0x1.2.3.4", false},
    {L"1::2:3:4:5:6:7:8", false},
    {L"::ffff:1.2.3.4%1", false},
    {L"::1 ", false},
    {L" ::1", false},
    {L"12345::", false},
    {L"::12345", false},
    {L"::ffff:1.2.3", false},
    {L"::1.2.3.4.", false},
    {L"1:2:3:4:5:6::1.2.3.4", false},
    {L"::ffff:1.2.3.4:1", false},
    {L"1:2:3:4:5:6:7:8:", false},
    {L":1:2:3:4:5:6:7:8", false},
    {L"1:::2", false},
    {L"::1:", false},
    {L"1:2::3:", false},
    {L"0x1::", false},
    {L"::0x1", false},
    {L"1:2:3:4:5:6:7:8%", false},
    {L"::1.2.3.4x", false},
    {L"1::x", false},
    {L"1::2:", false},
    {L"::1:2:3:4:5:6:1.2.3.4", false},
    {L"1:2:3:4:5:6:7:8 ", false},
    {L"::1.2.3.256", false},
    {L"::1.2.3.0377", false},
    {L"1:2:3:4:5:6.7.8.9", false},
    {L"::1.2.3.4.5", false},
};

// One table for both builds: on Windows it runs through the system's
// routines, on Linux through the module's own parsers.
TEST(AddressText, BothBuildsAcceptAndRefuseTheSameTexts) {
    for (const AddressCase& c : kIPv4Texts) {
        IPv4 a;
        EXPECT_EQ(IPv4::FromString(a, c.text), c.accepted ? 0 : qv::status::kInvalidParameter) << "IPv4 " << c.text;
    }
    for (const AddressCase& c : kIPv6Texts) {
        IPv6 a;
        EXPECT_EQ(IPv6::FromString(a, c.text), c.accepted ? 0 : qv::status::kInvalidParameter) << "IPv6 " << c.text;
    }
    // The same bytes come out: groups placed around the gap, the embedded
    // dotted parts read as decimal.
    EXPECT_EQ(Six(L"1:2:3:4:5::1.2.3.010").address,
              (std::array<uint8_t, 16>{0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0, 1, 2, 3, 10}));
    EXPECT_EQ(Six(L"1::8").address, (std::array<uint8_t, 16>{0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8}));
    EXPECT_EQ(Six(L"::ffff:10.0.0.1").address,
              (std::array<uint8_t, 16>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1}));
    EXPECT_EQ(Six(L"1:2:3:4:5:6:7::").address,
              (std::array<uint8_t, 16>{0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 0}));
}

TEST(IPv4Text, ReadsAddressAndPrefixAndRefusesBadPrefixesAndBadAddresses) {
    IPv4 a;
    ASSERT_EQ(IPv4::FromString(a, L"10.1.0.0/16"), 0);
    EXPECT_EQ(a.Value(), 0x0A010000u);
    EXPECT_EQ(a.prefix, 16u);
    EXPECT_EQ(a.ToString(), L"10.1.0.0/16");
    ASSERT_EQ(IPv4::FromString(a, L"10.0.0.5"), 0);
    EXPECT_EQ(a.prefix, 32u);
    EXPECT_EQ(a.ToString(IPv4::Form::kAddress), L"10.0.0.5");
    ASSERT_EQ(IPv4::FromString(a, L"10.0.0.1/"), 0);  // nothing after the slash: the full prefix
    EXPECT_EQ(a.prefix, 32u);
    ASSERT_EQ(IPv4::FromString(a, L"0.0.0.0/0"), 0);
    EXPECT_EQ(a.prefix, 0u);

    const IPv4 before = a;
    for (const wchar_t* bad : {L"10.0.0.0/033", L"10.0.0.0/0032", L"10.0.0.0/x", L"10.0.0.0/-1", L"10.0.0.0/ 8",
                               L"1.2.3.4/24/8", L"1.2.3.4 /24"}) {
        EXPECT_EQ(IPv4::FromString(a, bad), qv::status::kInvalidParameter) << bad;
        EXPECT_EQ(a.address, before.address);
    }
}

TEST(IPv6Text, ReadsAndWritesTheUsualFormsWithPrefix) {
    IPv6 a;
    ASSERT_EQ(IPv6::FromString(a, L"fe80::/10"), 0);
    EXPECT_EQ(a.prefix, 10u);
    EXPECT_EQ(a.address[0], 0xfe);
    EXPECT_EQ(a.address[1], 0x80);
    EXPECT_EQ(Six(L"2001:DB8:0:0:0:0:2:1").ToString(), L"2001:db8::2:1/128");
    EXPECT_EQ(Six(L"::1").ToString(IPv6::Form::kAddress), L"::1");
    ASSERT_EQ(IPv6::FromString(a, L"::/0"), 0);
    EXPECT_EQ(a.prefix, 0u);
    ASSERT_EQ(IPv6::FromString(a, L"2001:db8::/128"), 0);
    for (const wchar_t* bad : {L"::1/129", L"::1/0129", L"2001:db8::/64/"})
        EXPECT_EQ(IPv6::FromString(a, bad), qv::status::kInvalidParameter) << bad;
}

TEST(AddressOrder, IPv6SortsByTheLastDifferingByteAndIPv4Numerically) {
    const IPv6 a = Six(L"2001:db8::2:1"), b = Six(L"2001:db8::1:2");
    EXPECT_EQ(qv::Network::CompareAddress16(a.address.data(), b.address.data()), -1);
    EXPECT_EQ(qv::Network::CompareAddress16(b.address.data(), a.address.data()), 1);
    EXPECT_EQ(qv::Network::CompareAddress16(a.address.data(), a.address.data()), 0);

    Product::Integration::NetworkState::IPv6List six{b, a, Six(L"::1"), Six(L"2001:db8::2:1/64")};
    ASSERT_EQ(six.size(), 3u);  // the same address with another prefix is not added
    // ::1 and 2001:db8::2:1 share the last byte; byte 13 (0 against 2) decides.
    EXPECT_EQ(six[0].ToString(IPv6::Form::kAddress), L"::1");
    EXPECT_EQ(six[1].ToString(IPv6::Form::kAddress), L"2001:db8::2:1");
    EXPECT_EQ(six[2].ToString(IPv6::Form::kAddress), L"2001:db8::1:2");

    IPv4 x, y, z;
    ASSERT_EQ(IPv4::FromString(x, L"10.0.0.2"), 0);
    ASSERT_EQ(IPv4::FromString(y, L"9.255.255.255"), 0);
    ASSERT_EQ(IPv4::FromString(z, L"10.0.0.2/8"), 0);
    Product::Integration::NetworkState::IPv4List four{x, y, z};
    ASSERT_EQ(four.size(), 2u);
    EXPECT_EQ(four[0].ToString(IPv4::Form::kAddress), L"9.255.255.255");
    EXPECT_EQ(four[1].prefix, 32u);  // the first insert stays
}

}  // namespace
