// How adapters fold into the network state, over synthetic adapter records.
#include <gtest/gtest.h>

#include "adapter_records.h"
#include "network/adapter_convert.h"
#include "network/network_state.h"
#include "plugin/log.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using namespace network_test;
using Product::Integration::AdapterTypeExtractor;
using Product::Integration::ConnectionKind;
using Product::Integration::Convert;
using Product::Integration::NetworkState;
constexpr const wchar_t* kConvert = L"Product::Integration::NetworkProvider::Convert";

NetworkState Fold(const std::vector<os::AdapterRecord>& adapters, AdapterTypeExtractor& types) {
    NetworkState state;
    for (const auto& adapter : adapters) EXPECT_EQ(Convert(&adapter, state, types), 0);
    return state;
}

TEST(Convert, MergesAdaptersWithEveryAddressOnceInItsList) {
    testing_support::LogCapture log;
    AdapterTypeExtractor types(NoComponents());
    os::AdapterRecord a = Adapter(L"Adapter A", V4(10, 0, 0, 2));
    a.unicast.push_back(V6(L"2001:db8::1:2"));
    a.dnsServers = {V4(10, 0, 0, 53), V6(L"2001:db8::53")};
    a.gateways = {V4(10, 0, 0, 1)};
    a.winsServers = {V4(10, 0, 0, 9)};
    a.dnsSuffixChain = {L"corp.example", L"example"};
    a.dnsSuffix = L"a.example";
    os::AdapterRecord b = Adapter(L"Adapter B", V4(10, 0, 0, 2));  // the same address again
    b.unicast.push_back(V6(L"2001:db8::2:1"));
    b.unicast.push_back(os::IpAddress{});  // a family other than IPv4/IPv6: ignored
    b.dnsServers = {V4(10, 0, 0, 53)};
    b.dnsSuffixChain = {L"example", L"Example"};

    const NetworkState state = Fold({a, b}, types);
    ASSERT_EQ(state.ipv4Addresses.size(), 1u);
    EXPECT_EQ(state.ipv4Addresses[0].ToString(), L"10.0.0.2/32");
    ASSERT_EQ(state.ipv6Addresses.size(), 2u);
    EXPECT_EQ(state.ipv6Addresses[0].ToString(), L"2001:db8::2:1/128");
    EXPECT_EQ(state.ipv4DnsServers.size(), 1u);
    EXPECT_EQ(state.ipv6DnsServers.size(), 1u);
    EXPECT_EQ(state.ipv4Gateways.size(), 1u);
    EXPECT_EQ(state.ipv4WinsServers.size(), 1u);
    EXPECT_TRUE(state.ipv6Gateways.empty());
    EXPECT_EQ(state.dnsSuffixes.items(),
              (std::vector<std::wstring>{L"Example", L"a.example", L"corp.example", L"example"}));
    EXPECT_EQ(state.adapterNames.items(), (std::vector<std::wstring>{L"Adapter A", L"Adapter B"}));
    EXPECT_TRUE(state.ssids.empty());
    EXPECT_TRUE(testing_support::FileContains(log.path(),
                                              L"Adapter(s):\n    Adapter B\n\n  IP Data:\nIP:\n"
                                              L"    10.0.0.2/32\n    2001:db8::2:1/128\nDNS:\n"));
}

TEST(Convert, AdaptersThatAreDownOrWithoutUnicastAddressContributeNothing) {
    testing_support::LogCapture log;
    AdapterTypeExtractor types(NoComponents());
    os::AdapterRecord down = Adapter(L"Down", V4(10, 1, 0, 1));
    down.operStatus = os::OperStatus::kNotUp;
    down.dnsSuffix = L"down.example";
    os::AdapterRecord bare = Adapter(L"Bare", V4(0, 0, 0, 0));
    bare.unicast.clear();
    bare.dnsServers = {V4(10, 2, 0, 53)};
    bare.gateways = {V6(L"fe80::1")};
    bare.dnsSuffix = L"bare.example";

    const NetworkState state = Fold({down, bare}, types);
    EXPECT_FALSE(state.HasUnicastAddress());
    EXPECT_TRUE(state == NetworkState{});
    EXPECT_TRUE(state.adapterNames.empty());
    EXPECT_TRUE(state.dnsSuffixes.empty());
    EXPECT_TRUE(state.ipv4DnsServers.empty());
    EXPECT_TRUE(log.Contains(logging::kDetail, kConvert, L"Adapter [Down] is NOT up and able to pass packets"));

    NetworkState scratch;
    EXPECT_EQ(Convert(nullptr, scratch, types), qv::status::kInvalidParameter);
    EXPECT_TRUE(log.Contains(logging::kError, kConvert, L"Null adapter"));
}

TEST(Convert, OnlyAdaptersAComponentCallsPhysicalHaveAConnectionKind) {
    testing_support::LogCapture log;
    os::AdapterRecord wireless = Adapter(L"Wireless", V4(192, 168, 1, 20));
    wireless.ifType = os::if_type::kIeee80211;
    wireless.physicalAddress = {0x02, 0x00, 0x00, 0x00, 0x00, 0x71};  // no device of the machine has it

    {  // No components at all: tolerated, everything is Other.
        AdapterTypeExtractor types(NoComponents());
        EXPECT_FALSE(types.HasMacQuery());
        EXPECT_FALSE(types.HasPhysicalAdapterQuery());
        const NetworkState state = Fold({wireless}, types);
        EXPECT_TRUE(state.connectionKinds.empty());
        EXPECT_EQ(state.ipv4Addresses.size(), 1u);
        EXPECT_TRUE(log.Contains(L"mac [020000000071] is physical [FALSE]"));
    }
    {  // The reference components: they do not know the address either.
        AdapterTypeExtractor types(ReferenceComponents());
        ASSERT_TRUE(types.HasMacQuery());
        ASSERT_TRUE(types.HasPhysicalAdapterQuery());
        EXPECT_TRUE(Fold({wireless}, types).connectionKinds.empty());
        EXPECT_EQ(types.Classify(os::if_type::kEthernet, {}), ConnectionKind::kOther);
    }
}

TEST(NetworkStateEquality, IgnoresSsidsAndAdapterNamesButNothingElse) {
    AdapterTypeExtractor types(NoComponents());
    os::AdapterRecord a = Adapter(L"One", V4(10, 0, 0, 2));
    a.dnsSuffix = L"example";
    NetworkState first = Fold({a}, types);
    a.description = L"Renamed";
    NetworkState second = Fold({a}, types);
    first.ssids = {L"Office"};
    second.ssids = {L"Home", L"Home"};
    first.hostName = second.hostName = L"HOST";
    EXPECT_TRUE(first == second);

    NetworkState other = second;
    other.hostName = L"host";
    EXPECT_FALSE(first == other);
    other = second;
    other.dnsSuffixes.Insert(L"more.example");
    EXPECT_FALSE(first == other);
    other = second;
    other.AddConnectionKind(ConnectionKind::kEthernet);
    EXPECT_FALSE(first == other);
    other = second;
    other.ipv4Gateways.Insert(qv::Network::IPv4{{10, 0, 0, 1}, 32});
    EXPECT_FALSE(first == other);
    other = second;
    other.ipv6WinsServers.Insert(qv::Network::IPv6{});
    EXPECT_FALSE(first == other);
    other = second;
    other.AddConnectionKind(ConnectionKind::kOther);  // never stored
    EXPECT_TRUE(first == other);
}

}  // namespace
