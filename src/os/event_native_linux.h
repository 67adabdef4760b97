#pragma once
// What an AutoResetEvent is on Linux: an eventfd counter. For the files of
// this folder that wait on an event together with a descriptor of their own.
#include <chrono>
#include <cstdint>

#include "os/event.h"

namespace os {

struct AutoResetEvent::Native {
    int fd = -1;
};

// The time limit of one wait, fixed when the wait begins, as poll() takes
// it. kInfinite never passes.
class PollDeadline {
public:
    explicit PollDeadline(uint32_t timeoutMs) noexcept
        : infinite_(timeoutMs == kInfinite), deadline_(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}

    // Milliseconds left (0 once passed); -1 without a limit.
    int LeftMs() const noexcept {
        if (infinite_) return -1;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
        return left > 0 ? static_cast<int>(left) : 0;
    }
    bool Passed() const noexcept { return !infinite_ && Clock::now() >= deadline_; }

private:
    using Clock = std::chrono::steady_clock;
    bool infinite_;
    Clock::time_point deadline_;
};

}  // namespace os
