#include "os/worker_thread.h"

#include <system_error>

namespace os {

bool WorkerThread::Start(Body body) {
    CR_CHECK_ON_OWNER_THREAD(owner_);
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
    CR_CHECK_ON_OWNER_THREAD(owner_);
    Join();
}

void WorkerThread::Join() {
    if (!thread_.joinable()) return;
    CR_CHECK_NOT_ON_THREAD(thread_.get_id(), "a worker thread stopped from its own body would wait for itself");
    stop_.Set();
    thread_.join();
}

}  // namespace os
