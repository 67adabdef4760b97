// Adapters from the kernel through libnl: one dump each of the links, the
// addresses and the routes, joined by interface index. DNS servers and
// suffixes come from the resolver configuration, which Linux keeps for the
// whole machine, so every adapter carries the same. Wireless interfaces are
// told apart through sysfs; the rest of the kind comes from the link's
// hardware type (the value sysfs shows as "type"), which, unlike sysfs,
// also answers for interfaces of a private network namespace.
#include <linux/if_arp.h>
#include <netlink/errno.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <netlink/route/rtnl.h>
#include <unistd.h>

#include <climits>
#include <map>

#include "os/adapters.h"
#include "os/file_system.h"
#include "os/netlink_linux.h"
#include "os/resolver_config.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace os {
namespace {

bool ToIpAddress(nl_addr* address, IpAddress& out) {
    if (!address) return false;
    const auto* bytes = static_cast<const uint8_t*>(nl_addr_get_binary_addr(address));
    const unsigned length = nl_addr_get_len(address);
    if (nl_addr_get_family(address) == AF_INET && length == 4) {
        out = IpAddress::V4({bytes[0], bytes[1], bytes[2], bytes[3]});
        return true;
    }
    if (nl_addr_get_family(address) == AF_INET6 && length == 16) {
        std::array<uint8_t, 16> v6;
        std::copy(bytes, bytes + 16, v6.begin());
        out = IpAddress::V6(v6);
        return true;
    }
    return false;
}

bool IsWireless(const std::string& name) {
    const std::wstring base = L"/sys/class/net/" + Utf8ToWideLossy(name);
    return PathExists(base + L"/phy80211") || PathExists(base + L"/wireless");
}

uint32_t InterfaceType(rtnl_link* link, const std::string& name) {
    switch (rtnl_link_get_arptype(link)) {
        case ARPHRD_ETHER:
            return IsWireless(name) ? if_type::kIeee80211 : if_type::kEthernet;
        case ARPHRD_LOOPBACK:
            return if_type::kSoftwareLoopback;
        default:
            return if_type::kOther;
    }
}

AdapterRecord FromLink(rtnl_link* link, const ResolverConfiguration& resolver) {
    AdapterRecord r;
    const char* name = rtnl_link_get_name(link);
    const std::string narrow = name ? name : "";
    r.description = Utf8ToWideLossy(narrow);
    r.ifType = InterfaceType(link, narrow);
    // The kernel reports IFF_RUNNING exactly when the operational state is
    // up (or unknown, as for loopback, which has no carrier to lose).
    const unsigned flags = rtnl_link_get_flags(link);
    r.operStatus = (flags & IFF_UP) && (flags & IFF_RUNNING) ? OperStatus::kUp : OperStatus::kNotUp;
    if (nl_addr* mac = rtnl_link_get_addr(link)) {
        const auto* bytes = static_cast<const uint8_t*>(nl_addr_get_binary_addr(mac));
        r.physicalAddress.assign(bytes, bytes + nl_addr_get_len(mac));
    }
    r.dnsServers = resolver.servers;
    r.dnsSuffixChain = resolver.search;
    r.dnsSuffix = resolver.domain;
    return r;
}

bool IsDefaultRoute(rtnl_route* route) {
    if (rtnl_route_get_table(route) != RT_TABLE_MAIN || rtnl_route_get_type(route) != RTN_UNICAST) return false;
    nl_addr* destination = rtnl_route_get_dst(route);
    return !destination || nl_addr_get_prefixlen(destination) == 0;
}

Status Failed(int nlError) {
    const int code = nlError < 0 ? -nlError : nlError;
    return Status::Failure(code != 0 ? code : qv::status::kFunctionFailed,
                           L"reading the adapters through netlink: " + Utf8ToWideLossy(::nl_geterror(code)));
}

}  // namespace

Expected<Adapters> ReadAdapters() {
    netlink::Socket socket(nl_socket_alloc());
    if (!socket) return Failed(NLE_NOMEM);
    if (int e = nl_connect(socket.get(), NETLINK_ROUTE); e < 0) return Failed(e);

    nl_cache* raw = nullptr;
    if (int e = rtnl_link_alloc_cache(socket.get(), AF_UNSPEC, &raw); e < 0) return Failed(e);
    netlink::Cache links(raw);
    if (int e = rtnl_addr_alloc_cache(socket.get(), &raw); e < 0) return Failed(e);
    netlink::Cache addresses(raw);
    if (int e = rtnl_route_alloc_cache(socket.get(), AF_UNSPEC, 0, &raw); e < 0) return Failed(e);
    netlink::Cache routes(raw);

    const ResolverConfiguration resolver = ReadResolverConfiguration();
    Adapters list;
    std::map<int, size_t> byIndex;
    for (nl_object* o = nl_cache_get_first(links.get()); o; o = nl_cache_get_next(o)) {
        auto* link = reinterpret_cast<rtnl_link*>(o);
        byIndex[rtnl_link_get_ifindex(link)] = list.size();
        list.push_back(FromLink(link, resolver));
    }
    for (nl_object* o = nl_cache_get_first(addresses.get()); o; o = nl_cache_get_next(o)) {
        auto* address = reinterpret_cast<rtnl_addr*>(o);
        auto found = byIndex.find(rtnl_addr_get_ifindex(address));
        IpAddress ip;
        if (found != byIndex.end() && ToIpAddress(rtnl_addr_get_local(address), ip))
            list[found->second].unicast.push_back(ip);
    }
    for (nl_object* o = nl_cache_get_first(routes.get()); o; o = nl_cache_get_next(o)) {
        auto* route = reinterpret_cast<rtnl_route*>(o);
        if (!IsDefaultRoute(route)) continue;
        for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
            rtnl_nexthop* hop = rtnl_route_nexthop_n(route, i);
            auto found = byIndex.find(rtnl_route_nh_get_ifindex(hop));
            IpAddress gateway;
            if (found != byIndex.end() && ToIpAddress(rtnl_route_nh_get_gateway(hop), gateway))
                list[found->second].gateways.push_back(gateway);
        }
    }
    return list;
}

Expected<std::wstring> ReadHostName() {
    char buffer[HOST_NAME_MAX + 1] = {};
    if (::gethostname(buffer, sizeof buffer - 1) != 0)
        return Status::System(static_cast<uint32_t>(errno), L"gethostname");
    return Utf8ToWideLossy(buffer);
}

}  // namespace os
