// The scripted WLAN library; see scripted_wlan.h. Its functions carry names
// of their own and are exported under the WLAN names (scripted_wlan.def), so
// that the system's declarations of those names do not clash with them.
// clang-format off
#include <windows.h>
#include <wlanapi.h>
// clang-format on

#include <atomic>
#include <cstring>
#include <new>

#include "scripted_wlan.h"

namespace {

std::atomic<uint32_t> openError{0}, enumError{0}, interfaceCount{0};
std::atomic<int32_t> handles{0}, memory{0}, opens{0};
HANDLE const kHandle = reinterpret_cast<HANDLE>(0x5A17);

}  // namespace

extern "C" {

VOID WINAPI ScriptedWlanFreeMemory(PVOID block) {
    if (!block) return;
    --memory;
    ::operator delete(block);
}

DWORD WINAPI ScriptedWlanOpenHandle(DWORD, PVOID, PDWORD negotiated, PHANDLE handle) {
    ++opens;
    if (const DWORD e = openError; e != 0) return e;
    if (negotiated) *negotiated = 1;
    *handle = kHandle;
    ++handles;
    return ERROR_SUCCESS;
}

DWORD WINAPI ScriptedWlanCloseHandle(HANDLE handle, PVOID) {
    if (handle != kHandle) return ERROR_INVALID_HANDLE;
    --handles;
    return ERROR_SUCCESS;
}

DWORD WINAPI ScriptedWlanEnumInterfaces(HANDLE handle, PVOID, PWLAN_INTERFACE_INFO_LIST* list) {
    if (handle != kHandle) return ERROR_INVALID_HANDLE;
    if (const DWORD e = enumError; e != 0) return e;
    const DWORD count = interfaceCount;
    const size_t size = sizeof(WLAN_INTERFACE_INFO_LIST) + count * sizeof(WLAN_INTERFACE_INFO);
    auto* made = static_cast<PWLAN_INTERFACE_INFO_LIST>(::operator new(size));
    std::memset(made, 0, size);
    made->dwNumberOfItems = count;
    for (DWORD i = 0; i < count; ++i) {
        std::wcscpy(made->InterfaceInfo[i].strInterfaceDescription, L"Scripted radio");
        made->InterfaceInfo[i].isState = wlan_interface_state_disconnected;
    }
    ++memory;
    *list = made;
    return ERROR_SUCCESS;
}

DWORD WINAPI ScriptedWlanGetAvailableNetworkList(HANDLE, const GUID*, DWORD, PVOID, PWLAN_AVAILABLE_NETWORK_LIST*) {
    return ERROR_NOT_FOUND;  // only connected interfaces are asked; the script has none
}

__declspec(dllexport) void ScriptedWlanSet(const char* key, uint32_t value) {
    if (std::strcmp(key, "open") == 0) openError = value;
    if (std::strcmp(key, "enum") == 0) enumError = value;
    if (std::strcmp(key, "interfaces") == 0) interfaceCount = value;
}

__declspec(dllexport) int32_t ScriptedWlanCount(const char* key) {
    if (std::strcmp(key, "handles") == 0) return handles;
    if (std::strcmp(key, "memory") == 0) return memory;
    if (std::strcmp(key, "opens") == 0) return opens;
    return -1;
}

}  // extern "C"
