#pragma once
// A thread that runs one body until its stop event is set.
#include <functional>
#include <thread>

#include "os/event.h"
#include "os/thread_checker.h"

namespace os {

// Owner thread rule: Start and Stop are called by the owner only, never from
// the body itself (both checked in debug builds). The destructor, on any
// thread but the body's, stops a running thread.
class WorkerThread {
public:
    // The body should return soon after `stop` is signalled.
    using Body = std::function<void(AutoResetEvent& stop)>;

    WorkerThread() = default;
    ~WorkerThread() { Join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // False when a thread is already running or could not be created.
    [[nodiscard]] bool Start(Body body);
    // Signals the stop event and waits for the body to return.
    void Stop();
    bool Running() const noexcept { return thread_.joinable(); }
    AutoResetEvent& stop_event() noexcept { return stop_; }

private:
    void Join();

    ThreadChecker owner_;
    AutoResetEvent stop_;
    std::thread thread_;
};

}  // namespace os
