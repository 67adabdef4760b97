// "qv.isOvraConnected": connection reports from the host's agent client,
// debounced for 20 s on the hand-driven clock of the host's queues.

#include <functional>
#include <optional>
#include <utility>

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

// The host's agent client, with a report that arrives while a reader is
// between reading the state and getting the answer.
class ClientReportingDuringARead final : public Endpoint::Ovra::Notifications::IOvraClientWithNotifications {
public:
    explicit ClientReportingDuringARead(host::AgentClientNotifications& client) : client_(client) {}
    // Runs `action` once, inside the next read, after the state was taken.
    void DuringNextRead(std::function<void()> action) { duringNextRead_ = std::move(action); }

    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, IQvBaseInterface::iid) ||
                       qv::GuidEquals(requested, IOvraClientWithNotifications::iid)
                   ? static_cast<IOvraClientWithNotifications*>(this)
                   : nullptr;
    }
    std::optional<bool> GetEcsConnectionState() override {
        const std::optional<bool> state = client_.GetEcsConnectionState();
        if (std::function<void()> action = std::exchange(duringNextRead_, nullptr)) action();
        return state;
    }
    int32_t RegisterEcsNotifications(Endpoint::Ovra::Notifications::IEcsNotifications* s) override {
        return client_.RegisterEcsNotifications(s);
    }
    int32_t UnregisterEcsNotifications(Endpoint::Ovra::Notifications::IEcsNotifications* s) override {
        return client_.UnregisterEcsNotifications(s);
    }

private:
    host::AgentClientNotifications& client_;
    std::function<void()> duringNextRead_;
};

// A report that arrives while the condition reads the connection at start is
// newer than what it read: it is seen at once on recompute and delivered
// after the quiet period.
TEST(OvraConnectedStart, AReportDuringTheInitialReadIsNotLost) {
    Bench bench(true, false);
    ClientReportingDuringARead client(bench.agentClient);
    bench.host.components().Register(host::AgentClientNotifications::kName, &client);
    ASSERT_EQ(bench.manager.Init(bench.host.main()), 0);
    client.DuringNextRead([&] { bench.agentClient.SetConnectionState(false); });
    ConditionPtr condition = bench.Create(Connected(true));
    ASSERT_NE(condition, nullptr);
    Recorder recorder;
    EXPECT_EQ(condition->Subscribe(&recorder), 0);
    EXPECT_FALSE(StateOf(*condition, true));
    bench.host.manualClock()->Advance(20000);
    bench.Settle();
    EXPECT_EQ(recorder.States(), std::vector<bool>{false});
    EXPECT_FALSE(StateOf(*condition));
    EXPECT_EQ(condition->Unsubscribe(&recorder), 0);
}

}  // namespace
}  // namespace condition_testing
