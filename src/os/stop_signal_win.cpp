// The console control handler runs on a thread the system creates for each
// event. It calls onStop under a lock that the destructor also takes, so no
// call is in progress once the destructor returns; for the events after which
// the system ends the process, it then waits (a few seconds at most) for the
// watcher to go, which happens once the process has finished its cleanup.
#include "os/stop_signal.h"

#include <windows.h>

#include <mutex>

namespace os {

namespace {
constexpr DWORD kCleanupGraceMs = 4000;

std::mutex callbackMutex;
std::function<void()>* callback = nullptr;  // guarded by callbackMutex
HANDLE released = nullptr;                  // set when the watcher goes

BOOL WINAPI OnControlEvent(DWORD type) {
    {
        std::lock_guard lock(callbackMutex);
        if (!callback) return FALSE;
        (*callback)();
    }
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT)
        ::WaitForSingleObject(released, kCleanupGraceMs);
    return TRUE;
}
}  // namespace

struct StopSignalWatcher::Native {
    std::function<void()> onStop;
    bool active = false;
};

StopSignalWatcher::StopSignalWatcher(std::function<void()> onStop) : native_(std::make_unique<Native>()) {
    native_->onStop = std::move(onStop);
    released = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    {
        std::lock_guard lock(callbackMutex);
        callback = &native_->onStop;
    }
    // A process started in a new process group has Ctrl+C switched off;
    // a watcher wants it back.
    ::SetConsoleCtrlHandler(nullptr, FALSE);
    native_->active = ::SetConsoleCtrlHandler(OnControlEvent, TRUE) != 0;
}

StopSignalWatcher::~StopSignalWatcher() {
    if (native_->active) ::SetConsoleCtrlHandler(OnControlEvent, FALSE);
    {
        std::lock_guard lock(callbackMutex);
        callback = nullptr;
    }
    if (released) {
        ::SetEvent(released);
        // A handler may still be waiting on the event; leave the handle to
        // the process's end rather than close it under the waiter.
        released = nullptr;
    }
}

bool StopSignalWatcher::Active() const noexcept { return native_->active; }

}  // namespace os
