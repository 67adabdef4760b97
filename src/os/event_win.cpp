#include "os/event.h"

#include <windows.h>

#include <vector>

namespace os {

struct AutoResetEvent::Native {
    HANDLE handle = nullptr;
};

AutoResetEvent::AutoResetEvent() : native_(std::make_unique<Native>()) {
    native_->handle = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

AutoResetEvent::~AutoResetEvent() {
    if (native_->handle) ::CloseHandle(native_->handle);
}

bool AutoResetEvent::Valid() const noexcept { return native_->handle != nullptr; }
void AutoResetEvent::Set() noexcept { ::SetEvent(native_->handle); }
void AutoResetEvent::Reset() noexcept { ::ResetEvent(native_->handle); }

bool AutoResetEvent::Wait(uint32_t timeoutMs) noexcept {
    return ::WaitForSingleObject(native_->handle, timeoutMs) == WAIT_OBJECT_0;
}

int WaitAny(std::initializer_list<AutoResetEvent*> events, uint32_t timeoutMs) noexcept {
    std::vector<HANDLE> handles;
    handles.reserve(events.size());
    for (AutoResetEvent* e : events) handles.push_back(e->native().handle);
    // WaitForMultipleObjects reports (and consumes) the lowest signalled index.
    DWORD r = ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeoutMs);
    if (r < WAIT_OBJECT_0 + handles.size()) return static_cast<int>(r - WAIT_OBJECT_0);
    return kWaitTimeout;
}

}  // namespace os
