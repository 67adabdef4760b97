#pragma once
// Bounded waiting for tests that watch other threads. A test that waits for
// something that never happens fails after the patience below instead of
// hanging until the test runner's time limit.
#include <chrono>
#include <future>
#include <thread>

namespace testing_support {

constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(10);

// True when `future` finishes within `patience`.
inline bool Finishes(const std::future<void>& future, std::chrono::milliseconds patience = kPatience) {
    return future.wait_for(patience) == std::future_status::ready;
}

// True when `future` has not finished yet.
inline bool Pending(const std::future<void>& future) {
    return future.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

// Polls `predicate` every millisecond until it holds or `patience` runs out.
template <class Predicate>
bool Eventually(Predicate predicate, std::chrono::milliseconds patience = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace testing_support
