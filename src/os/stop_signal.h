#pragma once
// Requests from outside to stop the process: SIGINT and SIGTERM on Linux;
// the console's control events on Windows (Ctrl+C, Ctrl+Break, the console
// closing, log-off, shut-down).
//
// While a StopSignalWatcher exists such a request no longer ends the process
// at once: the watcher calls `onStop` instead, once per request, on a thread
// that is not the caller's (Linux: the watcher's own thread; Windows: the
// thread the system creates for the event), so `onStop` only records the
// request and wakes whoever stops the process. For the console closing,
// log-off and shut-down the system ends the process soon after the event
// (Windows): the watcher holds that off until it is destroyed, at most a few
// seconds, so that a process that stops promptly finishes its cleanup.
//
// On Linux the watcher also makes a write to a closed pipe fail with an error
// instead of ending the process (SIGPIPE is ignored while it exists).
//
// Only one watcher may exist at a time; create and destroy it on one thread.
// The destructor restores the previous behaviour and returns once no call of
// `onStop` is in progress.
#include <functional>
#include <memory>

namespace os {

class StopSignalWatcher {
public:
    explicit StopSignalWatcher(std::function<void()> onStop);
    ~StopSignalWatcher();
    StopSignalWatcher(const StopSignalWatcher&) = delete;
    StopSignalWatcher& operator=(const StopSignalWatcher&) = delete;

    // False when the system refused to install the watcher (requests then
    // end the process as they would without it).
    bool Active() const noexcept;

    struct Native;

private:
    std::unique_ptr<Native> native_;
};

}  // namespace os
