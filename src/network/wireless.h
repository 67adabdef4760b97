#pragma once
// The SSIDs of the wireless networks the machine is connected to, for the
// network state. The system's wireless interface is bound on first use, once
// per owner; without it the list simply stays empty.
//
// Thread rule: one thread at a time (the provider calls it under its state
// lock); the one-time load is safe from any thread.
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "os/wireless.h"

namespace Product::Integration {

class WlanAPI {
public:
    // `library`: what to bind instead of the system's wireless interface
    // (see os::WirelessApi).
    explicit WlanAPI(std::wstring library = os::WirelessApi::LibraryName()) : api_(std::move(library)) {}
    WlanAPI(const WlanAPI&) = delete;
    WlanAPI& operator=(const WlanAPI&) = delete;

    // Binds the library and its entry points, logging the step that failed.
    // 0, or the system's error of that step.
    [[nodiscard]] int32_t Load();

    // Appends to `ssids` the SSIDs of the networks the connected interfaces
    // are connected to. The first call loads the library (once); while it is
    // unavailable each call logs so and leaves `ssids` as it is. 0, or the
    // error that ended the query (what was gathered before stays).
    [[nodiscard]] int32_t GetSSIDList(std::vector<std::wstring>& ssids);

private:
    os::WirelessApi api_;
    std::once_flag loaded_;
};

// The part of GetSSIDList that reads a scan: logs each interface, and appends
// the SSID of every network that is connectable, marked connected and named
// (SSID bytes widened as UTF-8). A connected interface whose list failed is
// logged and skipped. Pure apart from the log; any thread.
void CollectSsids(const os::WirelessScan& scan, std::vector<std::wstring>& ssids);

}  // namespace Product::Integration
