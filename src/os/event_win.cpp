#include "os/event.h"

#include <windows.h>

#include <array>

#include "os/event_native_win.h"

namespace os {

AutoResetEvent::AutoResetEvent() : native_(std::make_unique<Native>()) {
    native_->handle = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!native_->handle) creationError_ = ::GetLastError();
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

static_assert(kMaxWaitEvents == MAXIMUM_WAIT_OBJECTS);

int WaitAny(std::span<AutoResetEvent* const> events, uint32_t timeoutMs) noexcept {
    if (events.empty() || events.size() > kMaxWaitEvents) return kWaitFailed;
    std::array<HANDLE, kMaxWaitEvents> handles{};
    for (size_t i = 0; i < events.size(); ++i) {
        if (!events[i] || !events[i]->Valid()) return kWaitFailed;
        handles[i] = events[i]->native().handle;
    }
    // WaitForMultipleObjects reports (and consumes) the lowest signalled index.
    const DWORD count = static_cast<DWORD>(events.size());
    const DWORD r = ::WaitForMultipleObjects(count, handles.data(), FALSE, timeoutMs);
    if (r < WAIT_OBJECT_0 + count) return static_cast<int>(r - WAIT_OBJECT_0);
    if (r == WAIT_TIMEOUT) return kWaitTimeout;
    return kWaitFailed;  // WAIT_FAILED; abandonment does not apply to events
}

}  // namespace os
