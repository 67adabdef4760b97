#pragma once
// The machine's network adapters as one portable record per adapter, filled by
// the Windows backend (GetAdaptersAddresses) and the Linux backend (netlink
// links, addresses and routes, the resolver configuration and sysfs), so that
// everything built on the records is shared code.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "os/status.h"

namespace os {

// Interface types as IANA numbers them (Windows' IF_TYPE_* values).
namespace if_type {
constexpr uint32_t kOther = 1;
constexpr uint32_t kEthernet = 6;  // IF_TYPE_ETHERNET_CSMACD
constexpr uint32_t kSoftwareLoopback = 24;
constexpr uint32_t kIeee80211 = 71;
constexpr uint32_t kGigabitEthernet = 117;
}  // namespace if_type

// One socket address of an adapter. IPv4 addresses fill the first four bytes.
struct IpAddress {
    enum class Family : uint8_t { kIPv4, kIPv6, kOther };
    Family family = Family::kOther;
    std::array<uint8_t, 16> bytes{};  // network byte order

    static IpAddress V4(std::array<uint8_t, 4> address);
    static IpAddress V6(const std::array<uint8_t, 16>& address);
};

enum class OperStatus : uint8_t {
    kUp,     // up and able to pass packets
    kNotUp,  // down, dormant, testing, without carrier, unknown...
};

struct AdapterRecord {
    std::wstring description;  // Windows: the description; Linux: the interface name
    uint32_t ifType = if_type::kOther;
    OperStatus operStatus = OperStatus::kNotUp;
    std::vector<uint8_t> physicalAddress;  // as long as the hardware's (6 for Ethernet), empty when none
    std::vector<IpAddress> unicast;
    std::vector<IpAddress> dnsServers;
    std::vector<IpAddress> winsServers;
    std::vector<IpAddress> gateways;
    std::vector<std::wstring> dnsSuffixChain;  // the connection's search suffixes
    std::wstring dnsSuffix;                    // the adapter's own suffix, "" when none
};

using Adapters = std::vector<AdapterRecord>;

// Reads every adapter of the machine (up or not, possibly none) in the
// system's order. When the system refuses, its error (a Windows error code;
// on Linux a libnl error number, NLE_*) with the system's text. Any thread;
// each call asks the system anew.
Expected<Adapters> ReadAdapters();

// The machine's host name (Windows: the NetBIOS computer name; Linux: the
// kernel's host name of the calling process's namespace), or the system's
// error. Any thread.
Expected<std::wstring> ReadHostName();

}  // namespace os
