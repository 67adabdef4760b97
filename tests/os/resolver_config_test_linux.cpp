// Reading the resolver configuration's servers and suffixes.
#include <gtest/gtest.h>

#include "os/resolver_config.h"

namespace {

TEST(ResolverConfiguration, ReadsServersSearchListAndDomain) {
    const os::ResolverConfiguration config = os::ParseResolverConfiguration(
        "# generated\n"
        "nameserver 10.0.0.53\n"
        "nameserver fe80::1%eth0 ; with a zone\n"
        "nameserver not-an-address\n"
        "search first.example second.example\n"
        "  search corp.example lab.example   # the last one counts\n"
        "domain corp.example\n"
        "options ndots:2\n");
    ASSERT_EQ(config.servers.size(), 2u);
    EXPECT_EQ(config.servers[0].family, os::IpAddress::Family::kIPv4);
    EXPECT_EQ(config.servers[0].bytes[0], 10);
    EXPECT_EQ(config.servers[0].bytes[3], 53);
    EXPECT_EQ(config.servers[1].family, os::IpAddress::Family::kIPv6);
    EXPECT_EQ(config.servers[1].bytes[0], 0xfe);
    EXPECT_EQ(config.servers[1].bytes[15], 1);
    EXPECT_EQ(config.search, (std::vector<std::wstring>{L"corp.example", L"lab.example"}));
    EXPECT_EQ(config.domain, L"corp.example");
    EXPECT_TRUE(os::ParseResolverConfiguration("").servers.empty());
}

}  // namespace
