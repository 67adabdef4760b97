#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "os/clock.h"
#include "os/event.h"
#include "os/worker_thread.h"

TEST(AutoResetEvent, OneSetReleasesOneWaitThenResets) {
    os::AutoResetEvent event;
    ASSERT_TRUE(event.Valid());
    EXPECT_FALSE(event.Wait(0));
    event.Set();
    event.Set();  // setting a set event changes nothing
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));
    event.Set();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(WaitAny, LowestSignalledIndexWinsAndOnlyItsSignalIsConsumed) {
    os::AutoResetEvent stop, eval, pause;
    eval.Set();
    stop.Set();
    EXPECT_EQ(os::WaitAny({&stop, &eval, &pause}, 0), 0);
    EXPECT_EQ(os::WaitAny({&stop, &eval, &pause}, 0), 1);
    EXPECT_EQ(os::WaitAny({&stop, &eval, &pause}, 0), os::kWaitTimeout);
    EXPECT_EQ(os::WaitAny({&stop, &eval, &pause}, 20), os::kWaitTimeout);
}

TEST(WaitAny, TooManyEventsOrANullOneFailAtOnceWithoutTakingASignal) {
    std::vector<std::unique_ptr<os::AutoResetEvent>> owned;
    std::vector<os::AutoResetEvent*> events;
    for (size_t i = 0; i <= os::kMaxWaitEvents; ++i) {
        owned.push_back(std::make_unique<os::AutoResetEvent>());
        events.push_back(owned.back().get());
    }
    const std::span<os::AutoResetEvent* const> all(events);
    events[63]->Set();
    EXPECT_EQ(os::WaitAny(all.first(os::kMaxWaitEvents), 0), 63);

    events[64]->Set();
    const uint32_t start = os::TickMs();
    EXPECT_EQ(os::WaitAny(all, 2000), os::kWaitFailed);
    EXPECT_EQ(os::WaitAny({events[0], nullptr}, 2000), os::kWaitFailed);
    EXPECT_EQ(os::WaitAny(all.first(0), 2000), os::kWaitFailed);
    EXPECT_LT(os::TickMs() - start, 1000u) << "refused without waiting";
    EXPECT_TRUE(events[64]->Wait(0)) << "the refused wait consumed nothing";
}

TEST(WaitAny, WakesWhenAnotherThreadSignals) {
    os::AutoResetEvent a, b;
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        b.Set();
    });
    EXPECT_EQ(os::WaitAny({&a, &b}, os::kInfinite), 1);
    setter.join();
}

TEST(WaitAny, EachSignalWakesExactlyOneOfSeveralWaiters) {
    os::AutoResetEvent event;
    std::atomic<int> woken{0};
    std::thread w1([&] { woken += event.Wait(300) ? 1 : 0; });
    std::thread w2([&] { woken += event.Wait(300) ? 1 : 0; });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    event.Set();
    w1.join();
    w2.join();
    EXPECT_EQ(woken.load(), 1);
}

TEST(WorkerThread, RunsUntilStoppedAndCanBeRestarted) {
    os::WorkerThread worker;
    std::atomic<int> rounds{0};
    auto body = [&](os::AutoResetEvent& stop) {
        while (!stop.Wait(1)) ++rounds;
    };
    ASSERT_TRUE(worker.Start(body));
    EXPECT_FALSE(worker.Start(body)) << "one thread at a time";
    while (rounds.load() < 3) std::this_thread::yield();
    worker.Stop();
    EXPECT_FALSE(worker.Running());
    const int after = rounds.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(rounds.load(), after);
    ASSERT_TRUE(worker.Start(body));
    worker.Stop();
}

TEST(Clock, TickFollowsRealTimeAWaitTimesOutAfterItsLimitAndWallClockIsPlausible) {
    os::AutoResetEvent event;
    const uint32_t start = os::TickMs();
    EXPECT_FALSE(event.Wait(50));
    const uint32_t elapsed = os::TickMs() - start;
    EXPECT_GE(elapsed, 40u);
    EXPECT_LT(elapsed, 10000u);
    EXPECT_GT(os::WallSeconds(), 1700000000);  // later than November 2023
}
