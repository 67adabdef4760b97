#include "network/wireless.h"

#include "os/utf8.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration {
namespace {

constexpr const wchar_t* kLoad = L"Product::Integration::NetworkProvider::WlanAPI::Load";
constexpr const wchar_t* kGetSSIDList = L"Product::Integration::NetworkProvider::GetSSIDList";

const wchar_t* EntryMessage(os::WirelessApi::Entry entry) {
    using Entry = os::WirelessApi::Entry;
    switch (entry) {
        case Entry::kFreeMemory:
            return L"Failed to get WlanFreeMemory address, error %d.";
        case Entry::kOpenHandle:
            return L"Failed to get WlanOpenHandle address, error %d.";
        case Entry::kCloseHandle:
            return L"Failed to get WlanCloseHandle address, error %d.";
        case Entry::kEnumInterfaces:
            return L"Failed to get WlanEnumInterfaces address, error %d.";
        case Entry::kGetAvailableNetworkList:
            return L"Failed to get WlanGetAvailableNetworkList address, error %d.";
        case Entry::kLibrary:
            break;
    }
    return nullptr;
}

}  // namespace

int32_t WlanAPI::Load() {
    const os::WirelessApi::LoadResult result = api_.Load();
    if (result.loaded) return qv::status::kSuccess;
    const int error = static_cast<int>(result.error);
    if (const wchar_t* message = EntryMessage(result.failedAt))
        logging::Log(logging::kError, kLoad, message, error);
    else
        logging::Log(logging::kError, kLoad, L"Failed to load %s, error %d.", api_.library().c_str(), error);
    return error != 0 ? error : qv::status::kFunctionFailed;
}

int32_t WlanAPI::GetSSIDList(std::vector<std::wstring>& ssids) {
    if (!api_.Complete()) std::call_once(loaded_, [this] { static_cast<void>(Load()); });
    if (!api_.Complete()) {
        logging::Log(logging::kWarning, kGetSSIDList, L"WLAN API is unavailabe");
        return qv::status::kSuccess;
    }
    const os::WirelessScan scan = api_.Scan();
    switch (scan.failure) {
        case os::WirelessScan::Failure::kOpenHandle:
            logging::Log(logging::kError, kGetSSIDList, L"WlanOpenHandle failed with error: %u\n", scan.error);
            return static_cast<int32_t>(scan.error);
        case os::WirelessScan::Failure::kEnumInterfaces:
            logging::Log(logging::kError, kGetSSIDList, L"WlanEnumInterfaces failed with error: %u\n", scan.error);
            return static_cast<int32_t>(scan.error);
        case os::WirelessScan::Failure::kNone:
            break;
    }
    CollectSsids(scan, ssids);
    return qv::status::kSuccess;
}

void CollectSsids(const os::WirelessScan& scan, std::vector<std::wstring>& ssids) {
    int index = 0;
    for (const os::WirelessInterface& wireless : scan.interfaces) {
        logging::Log(logging::kDetail, kGetSSIDList, L"Get SSID list from  Interface [%d]: %ws", index++,
                     wireless.description.c_str());
        if (!wireless.connected) continue;
        if (wireless.listError != 0) {
            logging::Log(logging::kError, kGetSSIDList, L"WlanGetAvailableNetworkList failed with error: %u\n",
                         wireless.listError);
            continue;
        }
        for (const os::WirelessNetwork& network : wireless.networks) {
            if (!network.connectable || !(network.flags & os::WirelessNetwork::kConnected) || network.ssid.empty())
                continue;
            ssids.push_back(os::Utf8ToWideLossy(network.ssid));
            logging::Log(logging::kDetail, kGetSSIDList, L"Found SSID %s", ssids.back().c_str());
        }
    }
}

}  // namespace Product::Integration
