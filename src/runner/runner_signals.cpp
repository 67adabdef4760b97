#include "runner/runner_signals.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace Product::Integration::ConditionalRunner {

int RunnerSignals::WaitForSignal(uint32_t timeoutMs) {
    // Listed in priority order: eval, stop, pause.
    const int woken = os::WaitAny({&eval_, &stop_, &pause_}, timeoutMs);
    if (woken >= 0) return woken;
    return woken == os::kWaitTimeout ? kTimeout : kFailed;
}

void RunnerSignals::WaitForAwake() {
    while (paused_ && !stopped_) {
        // A wait that fails cannot be waited out; it ends the pause rather
        // than leave the thread unable to see a stop.
        if (os::WaitAny({&awake_}, os::kInfinite) != 0) return;
    }
}

int64_t RunnerSignals::NowSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

void RunnerSignals::Sleep(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace Product::Integration::ConditionalRunner
