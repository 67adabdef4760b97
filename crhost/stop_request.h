#pragma once
// A request to stop the host program, made once from any thread (a signal
// watcher, the console's "quit") and seen by the main loop, which waits for
// it together with its input.
#include <atomic>
#include <cstdint>

#include "os/event.h"

namespace crhost {

class StopRequest {
public:
    // Any thread.
    void Request() noexcept {
        requested_.store(true);
        event_.Set();
    }
    bool Requested() const noexcept { return requested_.load(); }
    // Waits up to `timeoutMs` (one waiter at a time); true when a stop has
    // been requested, before the call or during it.
    bool WaitFor(uint32_t timeoutMs) noexcept {
        if (Requested()) return true;
        static_cast<void>(event_.Wait(timeoutMs));
        return Requested();
    }
    // Set on every request, for waiting on it with other events; check
    // Requested() after a wake-up.
    os::AutoResetEvent& event() noexcept { return event_; }

private:
    std::atomic<bool> requested_{false};
    os::AutoResetEvent event_;
};

}  // namespace crhost
