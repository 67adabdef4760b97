// Which wireless networks count as connected, over scans the test writes.
#include <gtest/gtest.h>

#include "network/wireless.h"
#include "support/log_capture.h"

namespace {

using Product::Integration::CollectSsids;
constexpr const wchar_t* kGetSSIDList = L"Product::Integration::NetworkProvider::GetSSIDList";

os::WirelessNetwork Network(const std::string& ssid, bool connectable = true,
                            uint32_t flags = os::WirelessNetwork::kConnected) {
    return os::WirelessNetwork{connectable, flags, ssid};
}

TEST(CollectSsids, TakesConnectedNamedNetworksOfConnectedInterfacesOnly) {
    testing_support::LogCapture log;
    os::WirelessScan scan;
    os::WirelessInterface first{L"First radio", true, 0, {}};
    first.networks = {Network("Office"), Network(""), Network("Guest", true, 0x2), Network("Locked", false),
                      Network("Caf\xc3\xa9")};
    os::WirelessInterface idle{L"Idle radio", false, 0, {Network("Ignored")}};
    os::WirelessInterface second{L"Second radio", true, 0, {Network("Office")}};
    os::WirelessInterface broken{L"Broken radio", true, 1168, {}};
    scan.interfaces = {first, idle, second, broken};

    std::vector<std::wstring> ssids{L"kept"};
    CollectSsids(scan, ssids);
    // Appended in the order found; the same network on two interfaces twice.
    EXPECT_EQ(ssids, (std::vector<std::wstring>{L"kept", L"Office", L"Caf\u00e9", L"Office"}));
    EXPECT_TRUE(log.Contains(16, kGetSSIDList, L"Get SSID list from  Interface [0]: First radio"));
    EXPECT_TRUE(log.Contains(16, kGetSSIDList, L"Get SSID list from  Interface [3]: Broken radio"));
    EXPECT_TRUE(log.Contains(16, kGetSSIDList, L"Found SSID Caf\u00e9"));
    EXPECT_TRUE(log.Contains(4, kGetSSIDList, L"WlanGetAvailableNetworkList failed with error: 1168"));
}

}  // namespace
