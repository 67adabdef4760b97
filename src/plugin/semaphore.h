#pragma once
// A counting semaphore built on a mutex and a condition variable.
//
// Used instead of std::counting_semaphore, whose libstdc++ 12 implementation
// can lose a wake-up when releases and acquires race (seen as rare hangs,
// most often in the Windows build). Permits are remembered: a Release that
// happens before the matching Acquire is not lost.
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace qv {

// Thread rule: any thread may call either operation.
class Semaphore {
public:
    explicit Semaphore(uint32_t initial = 0) : count_(initial) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Blocks until a permit is available, then takes it.
    void Acquire() {
        std::unique_lock<std::mutex> lock(mutex_);
        available_.wait(lock, [this] { return count_ > 0; });
        --count_;
    }

    // Adds `permits` permits and wakes as many waiters.
    void Release(uint32_t permits = 1) {
        if (permits == 0) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            count_ += permits;
        }
        if (permits == 1)
            available_.notify_one();
        else
            available_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable available_;
    uint64_t count_;
};

}  // namespace qv
