// Text forms and orders of the address types the network state keeps.
#include <gtest/gtest.h>

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
    for (const wchar_t* bad : {L"10.0.0.0/033", L"10.0.0.0/0032", L"10.0.0.0/x", L"10.0.0.0/-1", L"256.0.0.1",
                               L"010.0.0.1", L"1.2.3", L"1.2.3.4 ", L"1.2.3.4/24/8", L"", L"::1"}) {
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
    for (const wchar_t* bad : {L"fe80::1%5", L"[::1]", L"1::2::3", L"::1/129", L"1.2.3.4", L""})
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
