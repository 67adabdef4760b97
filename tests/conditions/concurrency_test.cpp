// Notifications from several threads into one AND/OR tree while other
// threads query it (run under ThreadSanitizer as well).

#include <future>
#include <thread>

#include "condition_test_support.h"
#include "conditions/condition_queue.h"

namespace condition_testing {
namespace {

TEST(Concurrency, NotificationsFromManyThreadsWhileTheTreeIsQueried) {
    Bench bench;
    // OR( AND(a, b), AND(c, NOT(d)), AND(a, c) ): the same leaf names appear twice.
    const std::string json = Combine("boolean.OR", {Combine("boolean.AND", {Switch("c.a"), Switch("c.b")}),
                                                    Combine("boolean.AND", {Switch("c.c"), Not(Switch("c.d"))}),
                                                    Combine("boolean.AND", {Switch("c.a"), Switch("c.c")})});
    ConditionPtr tree = bench.Create(json);
    ASSERT_NE(tree, nullptr);
    Recorder recorder;
    EXPECT_EQ(tree->Subscribe(&recorder), 0);

    const std::vector<std::wstring> names{L"c.a", L"c.b", L"c.c", L"c.d"};
    constexpr int kFlips = 300;
    std::atomic<bool> running{true};
    std::atomic<int> queries{0};
    std::vector<std::thread> threads;
    // One writer per switch, and two more that share "c.b".
    for (size_t i = 0; i < names.size() + 2; ++i) {
        threads.emplace_back([&, i] {
            const bool shared = i >= names.size();
            for (int n = 0; n < kFlips; ++n)
                bench.board.Set(names[shared ? 1 : i], (static_cast<size_t>(n) + i) % (shared ? 3 : 2) == 0);
        });
    }
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        // Each reader queries at least once, however soon the writers finish.
        readers.emplace_back([&, r] {
            do {
                bool state = false;
                EXPECT_EQ(tree->GetState(&state, r == 0), 0);
                ++queries;
            } while (running);
        });
    }
    for (auto& t : threads) t.join();

    // Final switch values: a, b, c true and d false make the tree true.
    for (const auto& name : names) bench.board.Set(name, name != L"c.d");
    bench.Settle();
    running = false;
    for (auto& t : readers) t.join();

    EXPECT_GT(queries.load(), 0);
    EXPECT_TRUE(StateOf(*tree, false));
    EXPECT_TRUE(StateOf(*tree, true));
    // Turning one input off is seen exactly once at the root.
    const size_t before = recorder.Count();
    bench.board.Set(L"c.a", false);
    bench.board.Set(L"c.d", true);
    bench.Settle();
    ASSERT_EQ(recorder.Count(), before + 1);
    EXPECT_FALSE(recorder.Notifications().back().state);
    EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
}

TEST(Concurrency, TreesBuiltAndDestroyedOnSeveralThreadsAtOnce) {
    Bench bench;
    const std::string json = Combine("boolean.AND", {Switch("p.a"), Not(Switch("p.b"))});
    std::atomic<bool> running{true};
    std::thread flipper([&] {
        for (bool v = false; running; v = !v) bench.board.Set(L"p.a", v);
    });
    std::vector<std::thread> builders;
    for (int t = 0; t < 3; ++t) {
        builders.emplace_back([&] {
            for (int n = 0; n < 100; ++n) {
                Recorder recorder;
                ConditionPtr tree = bench.Create(json);
                ASSERT_NE(tree, nullptr);
                EXPECT_EQ(tree->Subscribe(&recorder), 0);
                bool state = false;
                EXPECT_EQ(tree->GetState(&state, true), 0);
                EXPECT_EQ(tree->Unsubscribe(&recorder), 0);
            }
        });
    }
    for (auto& t : builders) t.join();
    running = false;
    flipper.join();
    bench.Settle();
    EXPECT_EQ(bench.board.AttachedLeaves(), 0u);
}

TEST(Concurrency, CloseWaitsForRunningWorkBeforeTheOwnerMayFreeTheQueue) {
    using namespace std::chrono_literals;
    host::ReferenceHost host;
    constexpr const wchar_t* kName = L"Test.CloseWaits";
    // A second client of the same name keeps the worker alive, so that giving
    // the condition's handle back does not by itself wait for the worker.
    IEventQueue* other = nullptr;
    ASSERT_EQ(host.queues().CreateQueue(kName, &other), 0);

    // Stands for a condition that owns its queue and is freed after Close.
    struct Owner {
        ConditionQueue queue;
        int workDone = 0;
    };
    auto* owner = new Owner;
    owner->queue.SetFactory(&host.queues());
    ASSERT_EQ(owner->queue.Open(kName), 0);

    std::promise<void> started, release;
    std::future<void> startedSeen = started.get_future();
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> finished{false};
    ASSERT_EQ(owner->queue.Post(
                  [&, owner] {
                      started.set_value();
                      released.wait();
                      owner->workDone = 1;  // a use after free if Close returned early
                      finished = true;
                  },
                  0),
              0);
    if (startedSeen.wait_for(10s) != std::future_status::ready) {
        release.set_value();
        FAIL() << "the posted work never started";
    }

    std::atomic<bool> finishedWhenClosed{false};
    auto closing = std::async(std::launch::async, [&, owner] {
        owner->queue.Close();
        finishedWhenClosed = finished.load();
        delete owner;
    });
    EXPECT_EQ(closing.wait_for(200ms), std::future_status::timeout) << "Close returned while work was running";
    release.set_value();
    closing.get();
    EXPECT_TRUE(finishedWhenClosed);
    EXPECT_EQ(host.queues().ReleaseQueue(other), 0);
}

}  // namespace
}  // namespace condition_testing
