// Which wireless networks count as connected, over scans the test writes;
// and the wireless interface's failures, over a scripted WLAN library
// (Windows) or an interface the system does not have.
#include <gtest/gtest.h>

#include "network/wireless.h"
#include "os/module.h"
#include "support/log_capture.h"

#if defined(_WIN32)
#include "libraries/scripted_wlan.h"
#include "plugin/log.h"
#endif

namespace {

using Product::Integration::CollectSsids;
using Product::Integration::WlanAPI;
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
    EXPECT_TRUE(log.Contains(logging::kDetail, kGetSSIDList, L"Get SSID list from  Interface [0]: First radio"));
    EXPECT_TRUE(log.Contains(logging::kDetail, kGetSSIDList, L"Get SSID list from  Interface [3]: Broken radio"));
    EXPECT_TRUE(log.Contains(logging::kDetail, kGetSSIDList, L"Found SSID Caf\u00e9"));
    EXPECT_TRUE(log.Contains(logging::kError, kGetSSIDList, L"WlanGetAvailableNetworkList failed with error: 1168"));
}

// An interface that cannot be bound: said once, then every query says the
// API is unavailable and leaves the list alone.
TEST(WlanAPI, AnInterfaceThatCannotBeBoundLeavesTheListAlone) {
    testing_support::LogCapture log;
    const std::wstring missing = os::SharedLibraryFileName(L"no_such_wlan");
    WlanAPI api(missing);
    std::vector<std::wstring> ssids{L"kept"};
    EXPECT_EQ(api.GetSSIDList(ssids), 0);
    EXPECT_EQ(api.GetSSIDList(ssids), 0);
    EXPECT_EQ(ssids, std::vector<std::wstring>{L"kept"});
    EXPECT_EQ(log.Messages(8), (std::vector<std::wstring>{L"WLAN API is unavailabe", L"WLAN API is unavailabe"}));
    const auto failures = log.Messages(4);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].rfind(L"Failed to load " + missing + L", error ", 0), 0u);
}

#if defined(_WIN32)
// WlanOpenHandle and WlanEnumInterfaces failing: each failure is logged and
// returned, the list stays as it was, and the handle is closed and every
// list freed on every path.
TEST(WlanAPI, OpenAndEnumerationFailuresAreReportedAndNothingStaysHeld) {
    const std::wstring path =
        os::JoinPath(testing_support::ProgramDirectory(), os::SharedLibraryFileName(scripted_wlan::kLibraryStem));
    const os::ModuleHandle library = os::LoadModule(path);  // the same module the API binds
    ASSERT_NE(library, nullptr);
    auto set = reinterpret_cast<scripted_wlan::SetFn>(os::FindSymbol(library, "ScriptedWlanSet"));
    auto count = reinterpret_cast<scripted_wlan::CountFn>(os::FindSymbol(library, "ScriptedWlanCount"));
    ASSERT_TRUE(set && count);

    testing_support::LogCapture log;
    WlanAPI api(path);
    std::vector<std::wstring> ssids{L"kept"};
    set("open", 1062);  // ERROR_SERVICE_NOT_ACTIVE
    EXPECT_EQ(api.GetSSIDList(ssids), 1062);
    EXPECT_TRUE(log.Contains(logging::kError, kGetSSIDList, L"WlanOpenHandle failed with error: 1062"));
    set("open", 0);
    set("enum", 5);  // ERROR_ACCESS_DENIED
    EXPECT_EQ(api.GetSSIDList(ssids), 5);
    EXPECT_TRUE(log.Contains(logging::kError, kGetSSIDList, L"WlanEnumInterfaces failed with error: 5"));
    EXPECT_EQ(count("handles"), 0);
    set("enum", 0);
    set("interfaces", 2);
    EXPECT_EQ(api.GetSSIDList(ssids), 0);
    EXPECT_TRUE(log.Contains(logging::kDetail, kGetSSIDList, L"Get SSID list from  Interface [1]: Scripted radio"));
    EXPECT_EQ(ssids, std::vector<std::wstring>{L"kept"});
    EXPECT_EQ(count("opens"), 3);
    EXPECT_EQ(count("handles"), 0);
    EXPECT_EQ(count("memory"), 0);
    os::ReleaseModule(library);
}
#endif

}  // namespace
