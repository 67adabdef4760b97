#pragma once
// Test helper: a thread that runs posted steps one after another, so that a
// test can make one thread take a lock, come back later on the same thread
// to release it, and see which steps are still blocked.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "os/thread_id.h"

namespace lock_testing {

constexpr auto kPatience = std::chrono::seconds(10);

class ThreadActor {
public:
    ThreadActor() : thread_([this] { Run(); }) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return id_ != 0; });
    }

    // Waits for all posted steps. A step still blocked after the test's
    // patience means the code under test never released it: the program
    // aborts then, rather than hang until the test runner's time limit.
    ~ThreadActor() {
        auto finished = Post({});
        if (finished.wait_for(kPatience) != std::future_status::ready) {
            std::fflush(stdout);
            std::fprintf(stderr, "ThreadActor: a step is still blocked at the end of the test\n");
            std::abort();
        }
        thread_.join();
    }

    ThreadActor(const ThreadActor&) = delete;
    ThreadActor& operator=(const ThreadActor&) = delete;

    // The operating system id of the actor's thread.
    uint32_t id() const noexcept { return id_; }

    // Runs `step` on the actor's thread after the steps posted before it. An
    // empty step ends the thread. Exceptions reach the future.
    std::future<void> Post(std::function<void()> step) {
        const bool last = !step;
        std::packaged_task<void()> task(last ? std::function<void()>([] {}) : std::move(step));
        auto future = task.get_future();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            steps_.push_back({std::move(task), last});
        }
        changed_.notify_all();
        return future;
    }

private:
    struct Step {
        std::packaged_task<void()> task;
        bool last;
    };

    void Run() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            id_ = os::CurrentThreadId();
        }
        changed_.notify_all();
        for (;;) {
            Step step;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return !steps_.empty(); });
                step = std::move(steps_.front());
                steps_.pop_front();
            }
            step.task();
            if (step.last) return;
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Step> steps_;
    uint32_t id_ = 0;
    std::thread thread_;
};

// True when `future` finishes within the test's patience.
inline bool Finishes(std::future<void>& future) {
    return future.wait_for(kPatience) == std::future_status::ready;
}

// True when `future` has not finished yet.
inline bool Pending(std::future<void>& future) {
    return future.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

// Polls `predicate` until it holds or the test's patience runs out.
template <class Predicate>
bool Eventually(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace lock_testing
