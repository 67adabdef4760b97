#pragma once
// The wireless networks the machine's wireless interfaces see.
//
// Windows: the WLAN API ("wlanapi.dll"), bound at run time so that machines
// without the wireless service still load the module.
// Linux: nl80211 over generic netlink; an interface that is associated
// reports the network it is connected to (the kernel offers no more without
// a scan, which needs privileges and time).
//
// The layer reports what it found, failures included; which networks count
// and what is logged is the caller's.
//
// Thread rule: Load and Scan are called by one thread at a time.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace os {

struct WirelessNetwork {
    static constexpr uint32_t kConnected = 0x1;  // WLAN_AVAILABLE_NETWORK_CONNECTED
    bool connectable = false;
    uint32_t flags = 0;
    std::string ssid;  // the SSID's bytes, exactly as long as the system gave
};

struct WirelessInterface {
    std::wstring description;
    bool connected = false;  // wlan_interface_state_connected
    uint32_t listError = 0;  // for a connected one: why its network list could not be had, 0 when it could
    std::vector<WirelessNetwork> networks;
};

struct WirelessScan {
    enum class Failure : uint8_t { kNone, kOpenHandle, kEnumInterfaces };
    Failure failure = Failure::kNone;
    uint32_t error = 0;  // the system's error for `failure`
    std::vector<WirelessInterface> interfaces;
};

class WirelessApi {
public:
    // The library's entry points in binding order; kLibrary is the library itself.
    enum class Entry : uint8_t {
        kLibrary,
        kFreeMemory,
        kOpenHandle,
        kCloseHandle,
        kEnumInterfaces,
        kGetAvailableNetworkList,
    };
    struct LoadResult {
        bool loaded = false;
        Entry failedAt = Entry::kLibrary;  // when not loaded
        uint32_t error = 0;                // the system's error for that step
    };

    // The system's interface: "wlanapi.dll" on Windows, the generic-netlink
    // family "nl80211" on Linux.
    static const wchar_t* LibraryName() noexcept;

    // Binds `library` on Load: on Windows the WLAN library's file (a stand-in
    // library with the same entry points in tests), on Linux the name of the
    // generic-netlink family.
    explicit WirelessApi(std::wstring library = LibraryName());
    ~WirelessApi();  // frees the library
    WirelessApi(const WirelessApi&) = delete;
    WirelessApi& operator=(const WirelessApi&) = delete;

    // Binds the library and its entries, stopping at the first that fails.
    LoadResult Load();
    // Whether every entry is bound.
    bool Complete() const noexcept;
    // What Load binds, for messages.
    const std::wstring& library() const noexcept { return library_; }
    // Lists the interfaces and, for each connected one, its networks. Every
    // list the system hands out is given back before this returns.
    WirelessScan Scan();

    struct Native;

private:
    std::wstring library_;
    std::unique_ptr<Native> native_;
};

}  // namespace os
