#include "os/worker_thread.h"

#include <system_error>

namespace os {

bool WorkerThread::Start(Body body) {
    if (thread_.joinable() || !stop_.Valid()) return false;
    stop_.Reset();
    try {
        thread_ = std::thread([this, body = std::move(body)] { body(stop_); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void WorkerThread::Stop() {
    if (!thread_.joinable()) return;
    stop_.Set();
    thread_.join();
}

}  // namespace os
