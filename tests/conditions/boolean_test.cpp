// Boolean combinators built from JSON and driven through real notifications
// of their leaves.

#include "condition_test_support.h"
#include "plugin/easy_event_queue.h"
#include "qv/status.h"

namespace condition_testing {
namespace {

// Names of the conditions of a tree in visiting order.
class TypeCollector final : public IConditionVisitor {
public:
    void Visit(ICondition& condition) override { types.push_back(condition.GetType()); }
    std::vector<std::wstring> types;
};

// The same switch sequence through AND and OR: each notifies once per change
// of its result, with the id the tree was built with.
TEST(BooleanAndOr, NotifyOnlyWhenTheResultChanges) {
    struct Case {
        const char* type;
        std::vector<bool> states;    // after b=T, a=T, b=F, a=F
        std::vector<size_t> counts;  // notifications after each step
    };
    for (const Case& c : {Case{"boolean.AND", {false, true, false, false}, {0, 1, 2, 2}},
                          Case{"boolean.OR", {true, true, true, false}, {1, 1, 1, 2}}}) {
        Bench bench;
        ConditionPtr tree = bench.Create(Combine(c.type, {Switch("a"), Switch("b")}), nullptr, 3);
        ASSERT_NE(tree, nullptr);
        EXPECT_FALSE(StateOf(*tree));
        Recorder recorder;
        ASSERT_EQ(tree->Subscribe(&recorder), 0);
        const std::pair<const wchar_t*, bool> steps[] = {{L"b", true}, {L"a", true}, {L"b", false}, {L"a", false}};
        for (size_t i = 0; i < 4; ++i) {
            bench.board.Set(steps[i].first, steps[i].second);
            bench.Settle();
            EXPECT_EQ(StateOf(*tree), c.states[i]) << c.type << " step " << i;
            EXPECT_EQ(recorder.Count(), c.counts[i]) << c.type << " step " << i;
        }
        EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false})) << c.type;
        EXPECT_EQ(recorder.Notifications()[0].id, 3u);
        EXPECT_EQ(tree->Unsubscribe(&recorder), 0);

        // A new tree starts from the children already true, without notifying.
        bench.board.Set(L"b", true);
        ConditionPtr oneTrue = bench.Create(Combine(c.type, {Switch("a"), Switch("b")}));
        ASSERT_NE(oneTrue, nullptr);
        EXPECT_EQ(StateOf(*oneTrue), c.states[0]) << c.type;
        bench.board.Set(L"a", true);
        ConditionPtr bothTrue = bench.Create(Combine(c.type, {Switch("b"), Switch("a")}));
        ASSERT_NE(bothTrue, nullptr);
        EXPECT_TRUE(StateOf(*bothTrue)) << c.type;
        Recorder quiet;
        EXPECT_EQ(bothTrue->Subscribe(&quiet), 0);
        bench.Settle();
        EXPECT_EQ(quiet.Count(), 0u);
        EXPECT_EQ(bothTrue->Unsubscribe(&quiet), 0);
    }
}

TEST(BooleanNot, ForwardsEveryChildNotificationAtOnce) {
    Bench bench;
    ConditionPtr tree = bench.Create(Not(Switch("not.a")));
    ASSERT_NE(tree, nullptr);
    EXPECT_TRUE(StateOf(*tree));
    Recorder recorder;
    EXPECT_EQ(tree->Subscribe(&recorder), 0);
    // Synchronous: the notification has arrived when Set returns.
    bench.board.Set(L"not.a", true);
    EXPECT_EQ(recorder.States(), std::vector<bool>{false});
    EXPECT_FALSE(StateOf(*tree));
    bench.board.Set(L"not.a", false);
    EXPECT_EQ(recorder.States(), (std::vector<bool>{false, true}));
    EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
}

TEST(BooleanTree, NestedCombinatorsCarryAChangeToTheRoot) {
    LogCapture capture;
    Bench bench;
    // OR( AND(a, NOT(b)), c )
    ConditionPtr tree = bench.Create(
        Combine("boolean.OR", {Combine("boolean.AND", {Switch("t.a"), Not(Switch("t.b"))}), Switch("t.c")}));
    ASSERT_NE(tree, nullptr);
    EXPECT_FALSE(StateOf(*tree));
    Recorder recorder;
    EXPECT_EQ(tree->Subscribe(&recorder), 0);

    bench.board.Set(L"t.a", true);  // AND turns true, so does OR
    bench.Settle();
    EXPECT_EQ(recorder.States(), std::vector<bool>{true});
    bench.board.Set(L"t.c", true);  // OR stays true
    bench.Settle();
    bench.board.Set(L"t.b", true);  // AND turns false; OR stays true through c
    bench.Settle();
    EXPECT_EQ(recorder.Count(), 1u);
    bench.board.Set(L"t.c", false);
    bench.Settle();
    EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false}));
    EXPECT_TRUE(capture.Contains(logging::kTrace,
                                 L"Product::Integration::ConditionManager::ConditionBase::NotifyChanged",
                                 L"Condition [boolean.OR] notify [FALSE]"));

    TypeCollector types;
    EXPECT_EQ(tree->Accept(types), 0);
    EXPECT_EQ(types.types, (std::vector<std::wstring>{L"boolean.OR", L"boolean.AND", L"test.Switch", L"boolean.NOT",
                                                      L"test.Switch", L"test.Switch"}));
    EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
}

TEST(BooleanAndOr, ABurstOfChildNotificationsGivesOneRecomputation) {
    LogCapture capture;
    Bench bench;
    ConditionPtr tree = bench.Create(Combine("boolean.AND", {Switch("burst.a"), Switch("burst.b")}));
    ASSERT_NE(tree, nullptr);
    Recorder recorder;
    EXPECT_EQ(tree->Subscribe(&recorder), 0);
    const int recomputesBefore = bench.board.Recomputes(L"burst.a");

    // Hold the aggregates' queue with an item of our own, so that both child
    // notifications are posted before the queue runs the first of them.
    IEventQueue* handle = nullptr;
    ASSERT_EQ(bench.host.queues().CreateQueue(L"CondAggregate", &handle), 0);
    qv::EasyEventQueue blocker;
    ASSERT_EQ(blocker.Init(handle, L"CondAggregate"), 0);
    std::mutex gate;
    std::unique_lock closed(gate);
    ASSERT_EQ(blocker.Post([&gate] { std::lock_guard wait(gate); }, 0), 0);

    bench.board.Set(L"burst.a", true);
    bench.board.Set(L"burst.b", true);
    closed.unlock();
    bench.Settle();

    EXPECT_EQ(recorder.States(), std::vector<bool>{true});
    EXPECT_EQ(bench.board.Recomputes(L"burst.a") - recomputesBefore, 1);
    const auto lines = capture.Lines();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const auto& l) {
                          return l.level == logging::kDetail && l.message == L"another update is scheduled" &&
                                 l.function ==
                                     L"Product::Integration::ConditionManager::ConditionBooleanAndOr::UpdateState";
                      }),
        1);

    blocker.Shutdown();
    bench.host.queues().ReleaseQueue(handle);
    EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
}

TEST(BooleanAndOr, AChildErrorDuringRecomputeKeepsTheCachedValueAndNotifiesNobody) {
    Bench bench;
    bench.board.Set(L"err.a", true);
    ConditionPtr tree = bench.Create(Combine("boolean.AND", {Switch("err.a"), Switch("err.b")}));
    ASSERT_NE(tree, nullptr);
    Recorder recorder;
    EXPECT_EQ(tree->Subscribe(&recorder), 0);

    bench.board.SetError(L"err.b", 1234);
    bool state = true;
    EXPECT_EQ(tree->GetState(&state, true), 1234);
    EXPECT_FALSE(StateOf(*tree, false));
    bench.board.Set(L"err.b", true);  // the recomputation fails: no notification
    bench.Settle();
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_FALSE(StateOf(*tree, false));

    bench.board.SetError(L"err.b", 0);
    bench.board.Set(L"err.a", false);
    bench.board.Set(L"err.a", true);
    bench.Settle();
    EXPECT_EQ(recorder.States(), std::vector<bool>{true});
    EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
}

TEST(ConditionBase, SubscriberBookkeepingAndTheLastStatusRule) {
    LogCapture capture;
    Bench bench;
    ConditionPtr leaf = bench.Create(Switch("base.a"));
    ASSERT_NE(leaf, nullptr);
    Recorder first(5), second(7);
    // Without subscribers a change notifies nobody and yields 0.
    EXPECT_EQ(bench.board.Set(L"base.a", true), 0);
    EXPECT_EQ(leaf->Subscribe(&first), 0);
    EXPECT_EQ(leaf->Subscribe(&first), qv::status::kFunctionFailed);
    EXPECT_EQ(leaf->Subscribe(&second), 0);
    Recorder stranger;
    EXPECT_EQ(leaf->Unsubscribe(&stranger), qv::status::kFunctionFailed);
    // The second subscriber's status wins although the first one failed too.
    EXPECT_EQ(bench.board.Set(L"base.a", false), 7);
    EXPECT_EQ(first.Count(), 1u);
    EXPECT_EQ(second.Count(), 1u);
    EXPECT_EQ(leaf->Unsubscribe(&second), 0);
    EXPECT_EQ(leaf->Unsubscribe(&second), qv::status::kFunctionFailed);
    EXPECT_EQ(bench.board.Set(L"base.a", true), 5);
    EXPECT_EQ(first.Count(), 2u);
    EXPECT_EQ(second.Count(), 1u);
    EXPECT_TRUE(capture.Contains(logging::kTrace,
                                 L"Product::Integration::ConditionManager::ConditionBase::NotifyChanged",
                                 L"Condition [test.Switch] notify [TRUE]"));
    EXPECT_EQ(leaf->Unsubscribe(&first), 0);
}

}  // namespace
}  // namespace condition_testing
