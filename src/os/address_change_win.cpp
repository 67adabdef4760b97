// winsock2.h before windows.h, and both before the IP helper.
// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
// clang-format on

#include "os/address_change.h"
#include "os/event_native_win.h"

namespace os {

struct AddressChangeWatch::Native {
    HANDLE notifyEvent = nullptr;  // auto-reset; the overlapped record's event
    DWORD creationError = 0;
    HANDLE changeHandle = nullptr;  // set by NotifyAddrChange
    OVERLAPPED overlapped{};
    bool pending = false;  // a request is in place and has not fired
};

AddressChangeWatch::AddressChangeWatch() : native_(std::make_unique<Native>()) {
    native_->notifyEvent = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!native_->notifyEvent) native_->creationError = ::GetLastError();
    native_->overlapped.hEvent = native_->notifyEvent;
}

AddressChangeWatch::~AddressChangeWatch() {
    Cancel();
    if (native_->notifyEvent) ::CloseHandle(native_->notifyEvent);
}

uint32_t AddressChangeWatch::CreationError() const noexcept { return native_->creationError; }

uint32_t AddressChangeWatch::Register() {
    if (native_->pending) return 0;
    if (!native_->notifyEvent) return native_->creationError ? native_->creationError : ERROR_INVALID_HANDLE;
    const DWORD result = ::NotifyAddrChange(&native_->changeHandle, &native_->overlapped);
    if (result != ERROR_IO_PENDING) return result == NO_ERROR ? ERROR_GEN_FAILURE : result;
    native_->pending = true;
    return 0;
}

AddressChangeWatch::WaitResult AddressChangeWatch::Wait(AutoResetEvent& stop, uint32_t timeoutMs) {
    if (!native_->notifyEvent || !stop.Valid()) return WaitResult::kFailed;
    const HANDLE handles[2] = {native_->notifyEvent, stop.native().handle};
    const DWORD r = ::WaitForMultipleObjects(2, handles, FALSE, timeoutMs);
    if (r == WAIT_OBJECT_0) {
        native_->pending = false;
        ++wakeUps_;
        return WaitResult::kChanged;
    }
    if (r == WAIT_OBJECT_0 + 1) {
        ++wakeUps_;
        return WaitResult::kStopped;
    }
    if (r == WAIT_TIMEOUT) return WaitResult::kTimeout;
    return WaitResult::kFailed;
}

void AddressChangeWatch::Cancel() {
    if (!native_->pending) return;
    ::CancelIPChangeNotify(&native_->overlapped);
    native_->pending = false;
}

}  // namespace os
