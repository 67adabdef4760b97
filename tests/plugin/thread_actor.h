#pragma once
// Test helper: a thread that runs posted steps one after another, so that a
// test can make one thread take a lock, come back later on the same thread
// to release it, and see which steps are still blocked.
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "os/thread_id.h"
#include "support/waiting.h"

namespace lock_testing {

using testing_support::Eventually;
using testing_support::Finishes;
using testing_support::Pending;

class ThreadActor {
public:
    ThreadActor() {
        Do([this] { id_ = os::CurrentThreadId(); });
    }

    // Waits for all posted steps. A step still blocked after the test's
    // patience means the code under test never released it: the program
    // aborts then, rather than hang until the test runner's time limit.
    ~ThreadActor() {
        if (!Finishes(Post([] {}))) std::fputs("ThreadActor: a step is still blocked\n", stderr), std::abort();
        Post({});  // ends the thread
        thread_.join();
    }

    // The operating system id of the actor's thread.
    uint32_t id() const noexcept { return id_; }

    // Runs `step` on the actor's thread after the steps posted before it (an
    // empty step ends the thread). Exceptions reach the future.
    std::future<void> Post(std::function<void()> step) {
        const bool last = !step;
        std::lock_guard<std::mutex> lock(mutex_);
        steps_.emplace_back(last, std::packaged_task<void()>(std::move(step)));
        changed_.notify_all();
        return steps_.back().second.get_future();
    }
    // Posts `step` and waits for it; rethrows its exception.
    void Do(std::function<void()> step) { Post(std::move(step)).get(); }

private:
    void Run() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !steps_.empty(); });
            auto [last, task] = std::move(steps_.front());
            steps_.pop_front();
            lock.unlock();
            if (last) return;
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::pair<bool, std::packaged_task<void()>>> steps_;  // (ends the thread, step)
    uint32_t id_ = 0;
    std::thread thread_{[this] { Run(); }};
};

}  // namespace lock_testing
