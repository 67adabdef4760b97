#include <windows.h>
#include <wlanapi.h>

#include "os/wireless.h"

namespace os {

using WlanFreeMemoryFn = VOID(WINAPI*)(PVOID);
using WlanOpenHandleFn = DWORD(WINAPI*)(DWORD, PVOID, PDWORD, PHANDLE);
using WlanCloseHandleFn = DWORD(WINAPI*)(HANDLE, PVOID);
using WlanEnumInterfacesFn = DWORD(WINAPI*)(HANDLE, PVOID, PWLAN_INTERFACE_INFO_LIST*);
using WlanGetAvailableNetworkListFn = DWORD(WINAPI*)(HANDLE, const GUID*, DWORD, PVOID, PWLAN_AVAILABLE_NETWORK_LIST*);

struct WirelessApi::Native {
    HMODULE library = nullptr;
    WlanFreeMemoryFn freeMemory = nullptr;
    WlanOpenHandleFn openHandle = nullptr;
    WlanCloseHandleFn closeHandle = nullptr;
    WlanEnumInterfacesFn enumInterfaces = nullptr;
    WlanGetAvailableNetworkListFn getAvailableNetworkList = nullptr;
};

const wchar_t* WirelessApi::LibraryName() noexcept { return L"wlanapi.dll"; }

WirelessApi::WirelessApi(std::wstring library) : library_(std::move(library)), native_(std::make_unique<Native>()) {}

WirelessApi::~WirelessApi() {
    if (native_->library) ::FreeLibrary(native_->library);
}

namespace {
template <class Fn>
bool Bind(HMODULE library, const char* name, Fn& slot) {
    slot = reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(library, name)));
    return slot != nullptr;
}
}  // namespace

WirelessApi::LoadResult WirelessApi::Load() {
    LoadResult result;
    Native& n = *native_;
    if (!n.library) n.library = ::LoadLibraryW(library_.c_str());
    if (!n.library) {
        result.error = ::GetLastError();
        return result;
    }
    const auto fail = [&](Entry entry) {
        result.failedAt = entry;
        result.error = ::GetLastError();
        return result;
    };
    if (!Bind(n.library, "WlanFreeMemory", n.freeMemory)) return fail(Entry::kFreeMemory);
    if (!Bind(n.library, "WlanOpenHandle", n.openHandle)) return fail(Entry::kOpenHandle);
    if (!Bind(n.library, "WlanCloseHandle", n.closeHandle)) return fail(Entry::kCloseHandle);
    if (!Bind(n.library, "WlanEnumInterfaces", n.enumInterfaces)) return fail(Entry::kEnumInterfaces);
    if (!Bind(n.library, "WlanGetAvailableNetworkList", n.getAvailableNetworkList))
        return fail(Entry::kGetAvailableNetworkList);
    result.loaded = true;
    return result;
}

bool WirelessApi::Complete() const noexcept {
    const Native& n = *native_;
    return n.freeMemory && n.openHandle && n.closeHandle && n.enumInterfaces && n.getAvailableNetworkList;
}

WirelessScan WirelessApi::Scan() {
    WirelessScan scan;
    if (!Complete()) {
        scan.failure = WirelessScan::Failure::kOpenHandle;
        scan.error = ERROR_INVALID_FUNCTION;
        return scan;
    }
    Native& n = *native_;
    HANDLE handle = nullptr;
    DWORD negotiated = 0;
    if (DWORD e = n.openHandle(1, nullptr, &negotiated, &handle); e != ERROR_SUCCESS) {
        scan.failure = WirelessScan::Failure::kOpenHandle;
        scan.error = e;
        return scan;
    }
    PWLAN_INTERFACE_INFO_LIST interfaces = nullptr;
    if (DWORD e = n.enumInterfaces(handle, nullptr, &interfaces); e != ERROR_SUCCESS) {
        scan.failure = WirelessScan::Failure::kEnumInterfaces;
        scan.error = e;
        n.closeHandle(handle, nullptr);
        return scan;
    }
    for (DWORD i = 0; i < interfaces->dwNumberOfItems; ++i) {
        const WLAN_INTERFACE_INFO& info = interfaces->InterfaceInfo[i];
        WirelessInterface entry;
        entry.description = info.strInterfaceDescription;
        entry.connected = info.isState == wlan_interface_state_connected;
        if (entry.connected) {
            PWLAN_AVAILABLE_NETWORK_LIST networks = nullptr;
            entry.listError = n.getAvailableNetworkList(handle, &info.InterfaceGuid, 0, nullptr, &networks);
            if (entry.listError == ERROR_SUCCESS && networks) {
                for (DWORD k = 0; k < networks->dwNumberOfItems; ++k) {
                    const WLAN_AVAILABLE_NETWORK& network = networks->Network[k];
                    WirelessNetwork seen;
                    seen.connectable = network.bNetworkConnectable != FALSE;
                    seen.flags = network.dwFlags;
                    const ULONG length = network.dot11Ssid.uSSIDLength <= DOT11_SSID_MAX_LENGTH
                                             ? network.dot11Ssid.uSSIDLength
                                             : DOT11_SSID_MAX_LENGTH;
                    seen.ssid.assign(reinterpret_cast<const char*>(network.dot11Ssid.ucSSID), length);
                    entry.networks.push_back(std::move(seen));
                }
            }
            if (networks) n.freeMemory(networks);
        }
        scan.interfaces.push_back(std::move(entry));
    }
    n.freeMemory(interfaces);
    n.closeHandle(handle, nullptr);
    return scan;
}

}  // namespace os
