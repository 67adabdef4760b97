// "qv.isOvraConnected": connection reports from the host's agent client,
// debounced for 20 s on the hand-driven clock of the host's queues.

#include <optional>

#include "condition_test_support.h"

namespace condition_testing {
namespace {

constexpr const wchar_t* kDoNotify = L"Product::Integration::ConditionManager::ConditionisOvraConnected::DoNotify";

std::string Connected(bool wanted) {
    return std::string(R"({"type":"qv.isOvraConnected","data":{"connected":)") + (wanted ? "true" : "false") + "}}";
}

class OvraConnected : public ::testing::Test {
protected:
    // Moves the queues' clock and lets everything that became due run.
    void Advance(int64_t ms) {
        bench.host.manualClock()->Advance(ms);
        bench.Settle();
    }

    LogCapture capture;
    Bench bench;
    Recorder recorder;
};

// Both wishes start from the current connection without notifying; an
// unknown connection counts as not connected, also for a new condition.
TEST_F(OvraConnected, StartsFromTheCurrentConnectionAndTakesUnknownAsNotConnected) {
    ConditionPtr wantConnected = bench.Create(Connected(true));
    ConditionPtr wantDisconnected = bench.Create(Connected(false));
    ASSERT_NE(wantConnected, nullptr);
    ASSERT_NE(wantDisconnected, nullptr);
    EXPECT_TRUE(StateOf(*wantConnected));
    EXPECT_FALSE(StateOf(*wantDisconnected));
    EXPECT_TRUE(capture.Contains(logging::kTrace,
                                 L"Product::Integration::ConditionManager::ConditionisOvraConnected::Init",
                                 L"Condition isOvraConnected initial state 1"));
    EXPECT_EQ(wantConnected->Subscribe(&recorder), 0);
    Advance(60000);
    EXPECT_EQ(recorder.Count(), 0u);

    bench.agentClient.SetConnectionState(std::nullopt);
    EXPECT_FALSE(StateOf(*wantConnected, true));
    EXPECT_TRUE(StateOf(*wantDisconnected, true));
    Advance(20000);
    EXPECT_EQ(recorder.States(), std::vector<bool>{false});
    EXPECT_TRUE(StateOf(*wantDisconnected));
    ConditionPtr late = bench.Create(Connected(false));
    ASSERT_NE(late, nullptr);
    EXPECT_TRUE(StateOf(*late));
    EXPECT_EQ(wantConnected->Unsubscribe(&recorder), 0);
}

// A change is delivered after twenty quiet seconds, and shown at once on
// recompute; each report restarts the wait, and the last value is delivered
// even when it is the one delivered before.
TEST_F(OvraConnected, DeliversTheLastReportAfterTwentyQuietSeconds) {
    ConditionPtr condition = bench.Create(Connected(true), nullptr, 5);
    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(condition->Subscribe(&recorder), 0);

    EXPECT_EQ(bench.agentClient.SetConnectionState(false), 1u);
    EXPECT_FALSE(StateOf(*condition, true));
    EXPECT_TRUE(StateOf(*condition, false));
    Advance(19999);
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_TRUE(StateOf(*condition, false));
    Advance(1);
    ASSERT_EQ(recorder.Count(), 1u);
    EXPECT_FALSE(recorder.Notifications()[0].state);
    EXPECT_EQ(recorder.Notifications()[0].id, 5u);
    EXPECT_FALSE(StateOf(*condition, false));
    EXPECT_TRUE(capture.Contains(logging::kTrace, kDoNotify, L"20s passed since last notification. new status [0]"));

    bench.agentClient.SetConnectionState(true);
    Advance(10000);
    bench.agentClient.SetConnectionState(false);
    Advance(19999);  // 29999 ms after the reconnect, 19999 after the disconnect
    EXPECT_EQ(recorder.Count(), 1u);
    Advance(1);
    EXPECT_EQ(recorder.States(), (std::vector<bool>{false, false}));
    bench.agentClient.Report();  // an unchanged state is delivered again too
    Advance(20000);
    EXPECT_EQ(recorder.States(), (std::vector<bool>{false, false, false}));
    EXPECT_EQ(condition->Unsubscribe(&recorder), 0);
}

TEST_F(OvraConnected, DestroyingTheConditionStopsReportsAndDropsAPendingDelivery) {
    ConditionPtr condition = bench.Create(Connected(true));
    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(bench.agentClient.SubscriberCount(), 1u);
    EXPECT_EQ(condition->Subscribe(&recorder), 0);
    bench.agentClient.SetConnectionState(false);
    EXPECT_EQ(condition->Unsubscribe(&recorder), 0);
    condition.reset();
    EXPECT_EQ(bench.agentClient.SubscriberCount(), 0u);
    EXPECT_EQ(bench.agentClient.SetConnectionState(true), 0u);
    Advance(40000);
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_EQ(bench.host.queues().PendingCount(), 0u);
    EXPECT_EQ(bench.host.queues().WorkerCount(), 0u);
}

}  // namespace
}  // namespace condition_testing
