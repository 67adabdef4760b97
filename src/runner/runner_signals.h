#pragma once
// The runner's four signals and the wall clock: what the evaluation loop
// waits on in the product.
//
// A pause lasts until the runner is resumed or stopped: the events only wake
// the thread, and whether it is paused is kept apart, so that a wake-up left
// over from an earlier resumption cannot end a later pause.
//
// Thread rules: any thread may raise a signal at any time without blocking;
// only the evaluation thread waits. Pause and Awake are called under the
// runner's lock, so they follow each other in the order the runner decided.
#include <atomic>
#include <cstdint>

#include "os/event.h"
#include "runner/evaluation_history.h"
#include "runner/evaluation_loop.h"

namespace Product::Integration::ConditionalRunner {

class RunnerSignals final : public EvalWaits {
public:
    // Asks for an evaluation soon (coalesced by the loop), for `why`.
    void RequestEvaluation(EvaluationTrigger why) noexcept {
        triggers_.fetch_or(static_cast<uint32_t>(why));
        eval_.Set();
    }
    // What asked for evaluations since the last call (EvaluationTrigger bits).
    uint32_t TakeTriggers() noexcept { return triggers_.exchange(0); }
    // What asks for an evaluation that has not run yet, without taking it.
    uint32_t PendingTriggers() const noexcept { return triggers_.load(); }
    // When the postponed evaluation is due (the wall clock's seconds), or
    // EvalWaits::kNothingDue.
    int64_t DueSeconds() const noexcept { return due_.load(); }
    // Ends the loop; also wakes it from a pause.
    void RequestStop() noexcept {
        stopped_ = true;
        stop_.Set();
        awake_.Set();
    }
    // Forgets an earlier stop, before the loop starts again.
    void Rearm() noexcept {
        stopped_ = false;
        stop_.Reset();
    }
    void Pause() noexcept {
        paused_ = true;
        pause_.Set();
    }
    void Awake() noexcept {
        paused_ = false;
        awake_.Set();
    }
    // False when the system refused one of the events.
    bool Valid() const noexcept { return eval_.Valid() && stop_.Valid() && pause_.Valid() && awake_.Valid(); }

    int WaitForSignal(uint32_t timeoutMs) override;
    void WaitForAwake() override;
    int64_t NowSeconds() override;
    void Sleep(uint32_t ms) override;
    void NoteDue(int64_t dueSeconds) override { due_ = dueSeconds; }

private:
    os::AutoResetEvent eval_;
    os::AutoResetEvent stop_;
    os::AutoResetEvent pause_;
    os::AutoResetEvent awake_;
    std::atomic<bool> paused_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<uint32_t> triggers_{0};
    std::atomic<int64_t> due_{EvalWaits::kNothingDue};
};

}  // namespace Product::Integration::ConditionalRunner
