#pragma once
// The runner's evaluation loop: turns bursts of "evaluate" signals into one
// evaluation each, and implements pause and stop.
//
// A lone signal leads to an evaluation `minEvalTime` seconds later (the quiet
// period); signals closer together than that keep postponing it, but never
// for more than about `maxPostponeTime` seconds after the first signal of the
// burst. Time is the wall clock in whole seconds, as the waits give it.
//
// What the loop waits on and what time it is come from an EvalWaits: the
// runner's events and the system clock in the product (RunnerSignals), a
// script on simulated time in tests, so that minutes of signals take
// milliseconds.
//
// When not to use it: it is the body of one thread; nothing else calls Run.
#include <atomic>
#include <cstdint>
#include <functional>

namespace Product::Integration::ConditionalRunner {

class EvalWaits {
public:
    // WaitForSignal results, in priority order when several are set at once.
    enum Signal : int { kEval = 0, kStop = 1, kPause = 2, kTimeout = -1, kFailed = -2 };
    static constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;

    // Waits for eval, stop or pause up to `timeoutMs` and consumes the one it
    // returns; kTimeout when the time passed, kFailed when the wait failed.
    [[nodiscard]] virtual int WaitForSignal(uint32_t timeoutMs) = 0;
    // Waits without time limit until the runner is woken (resumed or stopped).
    virtual void WaitForAwake() = 0;
    // The wall clock in seconds.
    [[nodiscard]] virtual int64_t NowSeconds() = 0;
    virtual void Sleep(uint32_t ms) = 0;
    // Told when the postponed evaluation is due, in the clock's seconds, or
    // kNothingDue once none is postponed; for people asking (status).
    static constexpr int64_t kNothingDue = -1;
    virtual void NoteDue(int64_t dueSeconds) {}

protected:
    ~EvalWaits() = default;
};

// The two settings the loop follows, in seconds. Written under the runner's
// lock by SetSettings, read by the loop without it.
struct PostponeSettings {
    std::atomic<uint32_t> minEvalTime{5};
    std::atomic<uint32_t> maxPostponeTime{60};
};

class EvaluationLoop {
public:
    using Evaluate = std::function<void()>;

    EvaluationLoop(EvalWaits& waits, const PostponeSettings& settings, Evaluate evaluate)
        : waits_(waits), settings_(settings), evaluate_(std::move(evaluate)) {}

    // Runs until the stop signal; returns 0. Logs what it receives at the
    // detail level under "ConditionalRunnerAL::EvalThread".
    int32_t Run();

private:
    void OnEval();
    // Sets the timeout of the next wait, and tells the waits when it ends.
    void SetTimeout(uint32_t timeoutMs, int64_t now);

    EvalWaits& waits_;
    const PostponeSettings& settings_;
    Evaluate evaluate_;
    int64_t firstEventTime_ = -1;  // first signal of the pending burst; -1: none
    uint32_t timeoutMs_ = EvalWaits::kNoTimeLimit;
};

}  // namespace Product::Integration::ConditionalRunner
