// The evaluation loop on simulated time: a script raises the runner's
// signals at given moments, and the waits jump from one moment to the next,
// so minutes of signals take milliseconds. Then the same loop on the real
// signals and clock, on a thread of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "runner/evaluation_loop.h"
#include "runner/runner_signals.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace {

using Product::Integration::ConditionalRunner::EvaluationLoop;
using Product::Integration::ConditionalRunner::EvaluationTrigger;
using Product::Integration::ConditionalRunner::EvalWaits;
using Product::Integration::ConditionalRunner::PostponeSettings;
using Product::Integration::ConditionalRunner::RunnerSignals;

enum class Raise { kEval, kStop, kPause, kAwake };

// Simulated time in milliseconds. Signals are auto-reset: several raised
// before a wait count once.
class ScriptedWaits final : public EvalWaits {
public:
    static constexpr int64_t kEpochSeconds = 1'700'000'000;

    void At(int64_t ms, Raise what) { script_.emplace(ms, what); }
    void EvalEvery(int64_t fromMs, int64_t toMs, int64_t stepMs) {
        for (int64_t t = fromMs; t <= toMs; t += stepMs) At(t, Raise::kEval);
    }
    int64_t now() const { return nowMs_; }

    int WaitForSignal(uint32_t timeoutMs) override {
        for (;;) {
            Deliver();
            if (std::exchange(eval_, false)) return kEval;
            if (std::exchange(stop_, false)) return kStop;
            if (std::exchange(pause_, false)) return kPause;
            const bool limited = timeoutMs != kNoTimeLimit;
            const int64_t deadline = nowMs_ + timeoutMs;
            if (script_.empty() || (limited && script_.begin()->first > deadline)) {
                if (!limited) {
                    ADD_FAILURE() << "the loop waits for ever at " << nowMs_ << " ms";
                    return kStop;
                }
                nowMs_ = deadline;
                return kTimeout;
            }
            nowMs_ = std::max(nowMs_, script_.begin()->first);
        }
    }
    void WaitForAwake() override {
        for (Deliver(); !std::exchange(awake_, false); Deliver()) {
            if (script_.empty()) {
                ADD_FAILURE() << "the loop waits for an awake signal that never comes";
                return;
            }
            nowMs_ = std::max(nowMs_, script_.begin()->first);
        }
    }
    int64_t NowSeconds() override { return kEpochSeconds + nowMs_ / 1000; }
    void Sleep(uint32_t ms) override { nowMs_ += ms; }
    void NoteDue(int64_t dueSeconds) override { dues.push_back(dueSeconds); }

    std::vector<int64_t> dues;  // every due time the loop told, in order

private:
    void Deliver() {
        while (!script_.empty() && script_.begin()->first <= nowMs_) {
            switch (script_.begin()->second) {
                case Raise::kEval:
                    eval_ = true;
                    break;
                case Raise::kStop:
                    stop_ = true;
                    break;
                case Raise::kPause:
                    pause_ = true;
                    break;
                case Raise::kAwake:
                    awake_ = true;
                    break;
            }
            script_.erase(script_.begin());
        }
    }

    std::multimap<int64_t, Raise> script_;
    int64_t nowMs_ = 0;
    bool eval_ = false, stop_ = false, pause_ = false, awake_ = false;
};

// Runs the loop over `waits` with the default settings (5 s quiet period,
// 60 s at most) and returns the simulated moments of the evaluations.
std::vector<int64_t> EvaluationTimes(ScriptedWaits& waits) {
    PostponeSettings settings;
    std::vector<int64_t> times;
    EvaluationLoop loop(waits, settings, [&] { times.push_back(waits.now()); });
    EXPECT_EQ(loop.Run(), 0);
    return times;
}

TEST(EvaluationLoop, ALoneSignalIsEvaluatedAfterTheQuietPeriod) {
    testing_support::LogCapture capture;
    ScriptedWaits waits;
    waits.At(0, Raise::kEval);
    waits.At(30'000, Raise::kStop);
    const std::vector<int64_t> times = EvaluationTimes(waits);
    ASSERT_EQ(times.size(), 1u);
    EXPECT_GE(times[0], 5'000);
    EXPECT_LE(times[0], 5'050);
    // It told when the evaluation was due, then that nothing was.
    EXPECT_EQ(waits.dues, (std::vector<int64_t>{ScriptedWaits::kEpochSeconds + 5, EvalWaits::kNothingDue}));
    EXPECT_TRUE(capture.Contains(logging::kDetail, L"ConditionalRunnerAL::EvalThread", L"Received timeout"));
    EXPECT_TRUE(capture.Contains(logging::kDetail, L"ConditionalRunnerAL::EvalThread", L"Received stop signal"));
}

// Signals every 2 s never leave 5 s of quiet: each burst is evaluated 60 s
// after its first signal (the last shortened timeout ends on the signal that
// comes exactly 60 s in, which runs it at once), and the next signal opens a
// new burst. The shortening logs the timeout it replaces, in milliseconds.
TEST(EvaluationLoop, AStreamOfSignalsIsEvaluatedAtTheLatestAfterTheMaximumPostponement) {
    testing_support::LogCapture capture;
    ScriptedWaits waits;
    waits.EvalEvery(0, 150'000, 2'000);
    waits.At(200'000, Raise::kStop);
    const std::vector<int64_t> times = EvaluationTimes(waits);
    // Bursts begin at 0, 62 s and 124 s; the last is evaluated once quiet.
    ASSERT_EQ(times.size(), 3u);
    EXPECT_EQ(times[0] / 1000, 60);
    EXPECT_EQ(times[1] / 1000, 122);
    EXPECT_EQ(times[2] / 1000, 155);
    const std::vector<std::wstring> postponing = [&] {
        std::vector<std::wstring> found;
        for (const auto& message : capture.Messages(logging::kDetail))
            if (message.rfind(L"Postponing for ", 0) == 0) found.push_back(message);
        return found;
    }();
    ASSERT_GE(postponing.size(), 2u);
    EXPECT_EQ(postponing[0], L"Postponing for 5000");
    EXPECT_EQ(postponing[1], L"Postponing for 4000");
}

// A burst pending when the runner pauses is neither lost nor evaluated while
// paused: signals raised meanwhile are seen after the resumption, and the
// quiet period runs on from there.
TEST(EvaluationLoop, APauseHoldsAPendingBurstUntilTheRunnerIsWoken) {
    ScriptedWaits waits;
    waits.At(0, Raise::kEval);
    waits.At(1'000, Raise::kPause);
    waits.At(2'000, Raise::kEval);
    waits.At(20'000, Raise::kAwake);
    waits.At(100'000, Raise::kStop);
    const std::vector<int64_t> times = EvaluationTimes(waits);
    ASSERT_EQ(times.size(), 1u);
    EXPECT_GE(times[0], 25'000);
    EXPECT_LE(times[0], 25'050);
}

TEST(EvaluationLoop, AStopEndsAPausedLoop) {
    ScriptedWaits waits;
    waits.At(0, Raise::kEval);
    waits.At(1'000, Raise::kPause);
    // Stopping raises the stop signal and wakes the loop.
    waits.At(3'000, Raise::kStop);
    waits.At(3'000, Raise::kAwake);
    EXPECT_TRUE(EvaluationTimes(waits).empty());
    EXPECT_EQ(waits.now(), 3'000);
}

// The product's signals: real events, any thread raising them.
TEST(EvaluationLoop, RunsOnTheRunnersSignalsUntilStopped) {
    RunnerSignals signals;
    ASSERT_TRUE(signals.Valid());
    PostponeSettings settings;
    settings.minEvalTime = 0;  // evaluate as soon as the quiet period (none) ends
    std::atomic<int> evaluations{0};
    std::atomic<uint32_t> triggers{0};
    EvaluationLoop loop(signals, settings, [&] {
        triggers = signals.TakeTriggers();
        ++evaluations;
    });
    std::thread thread([&] { EXPECT_EQ(loop.Run(), 0); });
    signals.RequestEvaluation(EvaluationTrigger::kConditionChange);
    EXPECT_TRUE(testing_support::Eventually([&] { return evaluations.load() == 1; }));
    // The pass learns what asked for it, and nothing is due after it.
    EXPECT_EQ(triggers.load(), static_cast<uint32_t>(EvaluationTrigger::kConditionChange));
    EXPECT_EQ(signals.PendingTriggers(), 0u);
    EXPECT_EQ(signals.DueSeconds(), EvalWaits::kNothingDue);
    signals.Pause();
    signals.RequestStop();
    thread.join();
    EXPECT_EQ(evaluations.load(), 1);
}

}  // namespace
