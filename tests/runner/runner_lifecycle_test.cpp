// The runner with its evaluation thread: start-up from stored state, the
// pause, and a stop that must not wait for ever.
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "runner/runner_fixture.h"
#include "support/waiting.h"

namespace {

using namespace runner_test;
using testing_support::Eventually;
using namespace std::chrono_literals;

constexpr const char* kTrue = R"({"type":"boolean.TRUE"})";

// Toggling inside the loop's wait leaves a wake-up behind; it must not end a
// later pause, and a pass that was already on its way must not run for a
// disabled runner (whose last run was just emptied, so every true rule would run).
TEST_F(RunnerTest, ADisabledRunnerRunsNothingWhileTheConsoleTogglesIt) {
    testing_support::LogCapture capture;
    ASSERT_EQ(runner_.SetSettings(Settings{1, 60}), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"r", L"M", kTrue)}), 0);
    ASSERT_EQ(runner_.Start(), 0);
    ASSERT_TRUE(Eventually([&] { return capture.Contains(L"Cannot run this time; postponing first event"); }));

    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_TRUE(Eventually([&] { return capture.Contains(L"Received pause signal"); }));
    std::this_thread::sleep_for(1500ms);  // the quiet period (1 s) has passed
    EXPECT_EQ(host_.policyRunner().Runs().size(), 0u);
    bool enabled = true;
    ASSERT_EQ(runner_.IsEnabled(enabled), 0);
    EXPECT_FALSE(enabled);
    // A pass that comes meanwhile runs nothing either.
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 0u);

    // Enabling resumes, and the rule runs.
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    EXPECT_TRUE(Eventually([&] { return host_.policyRunner().Runs().size() == 1; }));
    EXPECT_EQ(runner_.Stop(), 0);
}

// A method-set run that never returns: Stop returns after its time limit,
// the runner is uninitialised and destroyed, and when the run finally
// returns it touches nothing that was freed (AddressSanitizer watches),
// reports or saves nothing, and the pass's next method set never runs.
TEST_F(RunnerTest, StopGivesUpARunThatDoesNotReturnAndTheRunTouchesNothingAfterwards) {
    testing_support::LogCapture capture;
    host_.policyRunner().SetResult(L"P", L"hang", 0, 1h);  // the host's clock stands still
    auto runner = std::make_unique<ConditionalRunnerAL>();
    ASSERT_EQ(runner->Init(host_.main()), 0);
    ASSERT_EQ(runner->Subscribe(&reports_, 0), 0);
    runner->SetStopWaitTimeout(100);
    ASSERT_EQ(runner->SetSettings(Settings{0, 60}), 0);
    ASSERT_EQ(runner->SetMethod(MakeMethod(L"M", R"([{"plugin":"P","method":"hang"}])"), false), 0);
    ASSERT_EQ(runner->SetMethod(MakeMethod(L"N"), false), 0);
    qv::List<RuleError> errors;
    ASSERT_EQ(runner->SetRules(qv::List<Rule>{MakeRule(L"r", L"M", kTrue), MakeRule(L"r2", L"N", kTrue)}, errors), 0);
    ASSERT_EQ(runner->Start(), 0);
    ASSERT_TRUE(Eventually([&] { return host_.policyRunner().WaitingMethods() == 1; }));

    std::future<void> stopped = std::async(std::launch::async, [&] { EXPECT_EQ(runner->Stop(), 0); });
    ASSERT_TRUE(testing_support::Finishes(stopped)) << "Stop waited for the run";
    EXPECT_TRUE(capture.Contains(logging::kError, L"ConditionalRunnerAL::Stop", L"Cannot stop evaluation thread"));
    EXPECT_EQ(runner->Unsubscribe(&reports_, 0), 0);
    EXPECT_EQ(runner->Uninit(), 0);
    runner.reset();

    host_.manualClock()->Advance(2h);
    EXPECT_TRUE(Eventually(
        [&] { return capture.Contains(L"A method-set run returned after the runner stopped waiting for it [0]"); }));
    EXPECT_FALSE(Eventually([&] { return host_.policyRunner().Runs().size() > 1; }, 200ms));
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);
    EXPECT_EQ(reports_.Count(), 0u);
    // Still marked as under way: the next start runs every true rule again.
    EXPECT_EQ(Stored(L"/MethodsRunner/methodsRunStarted", L""), true);
}

// A runner stored as disabled starts paused and forgets its last run, so that
// enabling it runs every true rule again.
TEST_F(RunnerTest, AStoredDisabledFlagStartsThePausedRunnerWithAnEmptyLastRun) {
    ASSERT_EQ(runner_.SetSettings(Settings{0, 60}), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"r", L"M", kTrue)}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(StoredLastRunSize(), 1u);
    Put(L"/MethodsRunner", L"enabled", false);

    testing_support::LogCapture capture;
    ASSERT_EQ(runner_.Start(), 0);
    bool enabled = true;
    ASSERT_EQ(runner_.IsEnabled(enabled), 0);
    EXPECT_FALSE(enabled);
    ASSERT_TRUE(Eventually([&] { return capture.Contains(L"Received pause signal"); }));
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);

    ASSERT_EQ(runner_.SetEnabled(true), 0);
    EXPECT_TRUE(Eventually([&] { return host_.policyRunner().Runs().size() == 2; }));
    EXPECT_EQ(runner_.Stop(), 0);
    EXPECT_EQ(Stored(L"/MethodsRunner", L"enabled"), true);
}

// One stored rule that cannot be built: the runner starts with no rules at
// all rather than a part of them, and its method sets still load.
TEST_F(RunnerTest, AStoredRuleThatCannotBeBuiltClearsAllRulesButNotTheMethodSets) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    Put(L"/MethodsRunner/Rules", L"",
        ParseJson(R"({"data":[{"id":"good","displayName":"g","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}},
                              {"id":"bad","displayName":"b","methodSetId":"M",
                               "matchIf":{"type":"boolean.AND","data":{"conditions":[]}}}]})"));
    testing_support::LogCapture capture;
    ASSERT_EQ(runner_.Start(), 0);
    EXPECT_TRUE(capture.Contains(logging::kError, L"ConditionalRunnerAL::LoadSettings",
                                 L"Cannot create condition bad; cleaning all"));
    EXPECT_TRUE(capture.Contains(logging::kError, L"ConditionalRunnerAL::Start", L"Cannot load rules; err = 87"));
    qv::List<Rule> rules;
    ASSERT_EQ(runner_.GetRules(rules), 0);
    EXPECT_TRUE(rules.Empty());
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"M"}));
    EXPECT_EQ(runner_.Stop(), 0);
}

TEST_F(RunnerTest, SubscribersMustBeGivenAndKnown) {
    Reports other;
    EXPECT_EQ(runner_.Subscribe(nullptr, 0), qv::status::kInvalidParameter);
    EXPECT_EQ(runner_.Unsubscribe(nullptr, 0), qv::status::kInvalidParameter);
    EXPECT_EQ(runner_.Unsubscribe(&other, 0), qv::status::kFunctionFailed);
}

}  // namespace
