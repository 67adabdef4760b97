#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/clock.h"
#include "host/event_queue_service.h"
#include "os/event.h"

namespace {

using namespace std::chrono_literals;
using Events = std::vector<std::string>;

constexpr int32_t kNotReady = 21;
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kNotFound = 1168;
constexpr int32_t kTimeout = 1460;
constexpr uint32_t kForever = 0xFFFFFFFFu;

// A flag that one thread waits for, with a real-time limit.
struct Signal : os::AutoResetEvent {
    bool Wait() { return AutoResetEvent::Wait(10000); }
};

// Items note "run:x" and "release:x" here, in order; `made` lists the labels
// of all items created (by the test thread only).
struct Recorder {
    void Add(std::string event) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(event));
    }
    Events All() {
        std::lock_guard lock(mutex);
        return events;
    }
    Events Runs() {
        Events runs;
        for (const auto& e : All())
            if (e.rfind("run:", 0) == 0) runs.push_back(e.substr(4));
        return runs;
    }
    bool Released(const std::string& label) { return std::ranges::count(All(), "release:" + label) == 1; }

    std::mutex mutex;
    Events events, made;
};

class TestItem final : public EqWorkItem {
public:
    TestItem(Recorder& recorder, std::string label, std::function<void()> body = {})
        : recorder_(recorder), label_(std::move(label)), body_(std::move(body)) {
        recorder_.made.push_back(label_);
    }
    void Run() override {
        recorder_.Add("run:" + label_);
        if (body_) body_();
    }
    void Release() override {
        recorder_.Add("release:" + label_);
        delete this;
    }

private:
    Recorder& recorder_;
    std::string label_;
    std::function<void()> body_;
};

class EventQueueServiceTest : public ::testing::Test {
protected:
    IEventQueue* Open(const wchar_t* name) {
        IEventQueue* queue = nullptr;
        EXPECT_EQ(service.CreateQueue(name, &queue), 0);
        return queue;
    }
    int32_t Post(IEventQueue* queue, const std::string& label, uint32_t delayMs = 0, std::function<void()> body = {},
                 uint32_t expireMs = kEqNoValue, EqGroupHandle group = 0, EqItemId* id = nullptr) {
        return queue->Post(nullptr, delayMs, expireMs, new TestItem(recorder, label, std::move(body)), group, id);
    }
    // Every item made was released exactly once, and after its run if it ran.
    void ExpectEachReleasedOnce() {
        const Events all = recorder.All();
        for (const auto& label : recorder.made) {
            EXPECT_TRUE(recorder.Released(label)) << label;
            auto run = std::ranges::find(all, "run:" + label);
            EXPECT_TRUE(run == all.end() || run < std::ranges::find(all, "release:" + label)) << label;
        }
    }

    Recorder recorder;  // outlives the service, which releases leftovers
    host::ManualClock clock;
    host::EventQueueService service{clock};
};

TEST_F(EventQueueServiceTest, RunsItemsOnItsWorkerWhenDueInDueOrderAndFifoAmongEqualDueTimes) {
    IEventQueue* q = Open(L"Q");
    std::thread::id ranOn;
    for (auto [label, delay] : {std::pair{"late", 30u}, {"mid1", 10u}, {"mid2", 10u}, {"last", 30u}, {"mid3", 10u}})
        ASSERT_EQ(Post(q, label, delay, [&] { ranOn = std::this_thread::get_id(); }), 0);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_TRUE(recorder.Runs().empty());

    clock.Advance(29);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"mid1", "mid2", "mid3"}));
    EXPECT_EQ(service.PendingCount(), 2u);
    EXPECT_NE(ranOn, std::this_thread::get_id());

    clock.Advance(1);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"mid1", "mid2", "mid3", "late", "last"}));
    EXPECT_EQ(service.PendingCount(), 0u);
    ASSERT_EQ(service.ReleaseQueue(q), 0);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, CancelByIdOrGroupReleasesOnlyTheClientsOwnPendingItems) {
    IEventQueue* q = Open(L"Q");
    IEventQueue* other = Open(L"Q");
    EqItemId a = 0, b = 0;
    EqGroupHandle g1 = 0, g2 = 0, foreign = 0;
    ASSERT_EQ(q->CreateGroup(&g1), 0);
    ASSERT_EQ(q->CreateGroup(&g2), 0);
    ASSERT_EQ(other->CreateGroup(&foreign), 0);
    ASSERT_NE(g1, g2);
    ASSERT_EQ(Post(q, "a", 10, {}, kEqNoValue, 0, &a), 0);
    ASSERT_EQ(Post(q, "b", 10, {}, kEqNoValue, g2, &b), 0);
    ASSERT_NE(a, 0u);
    ASSERT_NE(a, b);
    Post(q, "none", 10);
    Post(q, "g1a", 10, {}, kEqNoValue, g1);
    Post(q, "g1b", 20, {}, kEqNoValue, g1);
    EXPECT_EQ(Post(q, "foreign", 10, {}, kEqNoValue, foreign), kInvalidParameter);

    EXPECT_EQ(other->Cancel(a), kNotFound);
    EXPECT_EQ(other->CancelGroup(g1), kNotFound);
    EXPECT_EQ(q->Cancel(a), 0);
    EXPECT_EQ(q->Cancel(a), kNotFound);
    EXPECT_EQ(q->CancelGroup(g1), 0);
    // A cancelled group stays usable; a released one is gone.
    EXPECT_EQ(Post(q, "g1c", 10, {}, kEqNoValue, g1), 0);
    EXPECT_EQ(q->ReleaseGroup(g1), 0);
    EXPECT_EQ(recorder.All(), (Events{"release:foreign", "release:a", "release:g1a", "release:g1b", "release:g1c"}));
    EXPECT_EQ(q->CancelGroup(g1), kNotFound);
    EXPECT_EQ(Post(q, "g1d", 10, {}, kEqNoValue, g1), kInvalidParameter);

    clock.Advance(20);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"b", "none"}));
    EXPECT_EQ(q->Cancel(b), kNotFound);  // already ran
    service.ReleaseQueue(other);
    service.ReleaseQueue(q);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, StopWaitAndReleaseAffectOnlyTheirOwnHandle) {
    IEventQueue* a = Open(L"Shared");
    IEventQueue* b = Open(L"Shared");
    Signal started, gate;
    ASSERT_EQ(Post(a, "a-blocking", 0,
                   [&] {
                       started.Set();
                       gate.Wait();
                   }),
              0);
    ASSERT_TRUE(started.Wait());
    Post(a, "a-pending", 10);
    Post(b, "b-pending", 10);

    // a's item is running: waiting for a times out, b has nothing running.
    EXPECT_EQ(service.WaitQueue(a, 30), kTimeout);
    EXPECT_EQ(service.WaitQueue(b, kForever), 0);

    ASSERT_EQ(service.StopQueue(a), 0);
    EXPECT_TRUE(recorder.Released("a-pending"));
    EXPECT_EQ(Post(a, "a-refused", 0), kNotReady);
    EXPECT_TRUE(recorder.Released("a-refused"));
    EqGroupHandle g = 0;
    EXPECT_EQ(a->CreateGroup(&g), kNotReady);

    gate.Set();
    EXPECT_EQ(service.WaitQueue(a, kForever), 0);
    EXPECT_TRUE(recorder.Released("a-blocking"));  // released before the wait ends
    ASSERT_EQ(service.ReleaseQueue(a), 0);
    EXPECT_EQ(service.StopQueue(a), kInvalidParameter);  // released handles are unknown
    EXPECT_EQ(service.WorkerCount(), 1u);

    // b's client goes on working on the same worker.
    clock.Advance(10);
    EXPECT_EQ(Post(b, "b-later", 0), 0);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"a-blocking", "b-pending", "b-later"}));
    ASSERT_EQ(service.ReleaseQueue(b), 0);
    EXPECT_EQ(service.WorkerCount(), 0u);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, OneWorkerPerNameDifferentNamesRunConcurrently) {
    IEventQueue* a = Open(L"A");
    IEventQueue* a2 = Open(L"A");
    IEventQueue* b = Open(L"B");
    EXPECT_EQ(service.WorkerCount(), 2u);

    // The item on A can only finish in time if B's item runs meanwhile.
    Signal fromB;
    bool sawB = false;
    Post(a, "waits-for-b", 0, [&] { sawB = fromB.Wait(); });
    Post(b, "b", 0, [&] { fromB.Set(); });
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_TRUE(sawB);

    // Two clients of one name: the second item starts only after the first ended.
    Signal started, gate;
    Post(a, "first", 0, [&] {
        started.Set();
        gate.Wait();
    });
    ASSERT_TRUE(started.Wait());
    Post(a2, "second");
    std::this_thread::sleep_for(50ms);
    gate.Set();
    ASSERT_TRUE(service.WaitIdle());
    Events order = recorder.All();
    order.erase(order.begin(), order.end() - 4);
    EXPECT_EQ(order, (Events{"run:first", "release:first", "run:second", "release:second"}));

    service.ReleaseQueue(a);
    EXPECT_EQ(service.WorkerCount(), 2u);
    service.ReleaseQueue(a2);
    EXPECT_EQ(service.WorkerCount(), 1u);
    service.ReleaseQueue(b);
    EXPECT_EQ(service.WorkerCount(), 0u);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, ItemsMayWaitForStopAndReleaseTheirOwnQueue) {
    IEventQueue* q = Open(L"Self");
    int32_t waitResult = -1;
    Post(q, "pending", 50);
    Post(q, "self", 0, [&] {
        waitResult = service.WaitQueue(q, 5000);  // would time out if it waited for itself
        service.StopQueue(q);
        service.ReleaseQueue(q);  // the last handle: the worker ends after this item
    });
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(waitResult, 0);
    EXPECT_EQ(recorder.Runs(), (Events{"self"}));
    EXPECT_EQ(service.WorkerCount(), 0u);

    // The ended worker is joined by a later call; the name gets a fresh worker.
    IEventQueue* again = Open(L"Self");
    EXPECT_EQ(service.WorkerCount(), 1u);
    Post(again, "again");
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"self", "again"}));
    service.ReleaseQueue(again);
    ExpectEachReleasedOnce();
}

// Items still waiting for the worker when their expiry passes are dropped
// unrun; refused and throwing items are released and the worker carries on.
TEST_F(EventQueueServiceTest, ExpiredRefusedAndThrowingItemsAreReleasedAndTheWorkerCarriesOn) {
    IEventQueue* q = nullptr;
    EXPECT_EQ(service.CreateQueue(L"", &q), kInvalidParameter);
    q = Open(L"Q");
    EXPECT_EQ(q->Post(L"Other", 0, kEqNoValue, new TestItem(recorder, "wrong-name"), 0, nullptr), kInvalidParameter);
    EXPECT_TRUE(recorder.Released("wrong-name"));
    EXPECT_EQ(q->Post(L"Q", 0, kEqNoValue, nullptr, 0, nullptr), kInvalidParameter);
    Signal started, gate;
    Post(q, "throws", 0, [&] {
        started.Set();
        gate.Wait();
        throw std::runtime_error("boom");
    });
    ASSERT_TRUE(started.Wait());
    Post(q, "expires-100", 0, {}, 100);
    Post(q, "expires-101", 0, {}, 101);
    Post(q, "delayed-expires-0", 101, {}, 0);
    EXPECT_EQ(q->Post(L"Q", 0, kEqNoValue, new TestItem(recorder, "never-expires"), 0, nullptr), 0);
    clock.Advance(101);
    gate.Set();
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"throws", "expires-101", "never-expires", "delayed-expires-0"}));
    service.ReleaseQueue(q);
    EXPECT_EQ(service.ReleaseQueue(q), kInvalidParameter);
    ExpectEachReleasedOnce();
}

// The destructor releases the pending items of handles still held.
TEST_F(EventQueueServiceTest, DelaysFollowRealTimeOnTheSystemClockAndLeftoversAreReleasedAtTheEnd) {
    Signal ran;
    std::chrono::steady_clock::time_point ranAt;
    auto body = [&] {
        ranAt = std::chrono::steady_clock::now();
        ran.Set();
    };
    const auto posted = std::chrono::steady_clock::now();
    {
        host::SystemClock systemClock;
        host::EventQueueService real(systemClock);
        IEventQueue* q = nullptr;
        ASSERT_EQ(real.CreateQueue(L"Q", &q), 0);
        EXPECT_EQ(q->Post(nullptr, 60000, kEqNoValue, new TestItem(recorder, "pending"), 0, nullptr), 0);
        EXPECT_EQ(q->Post(nullptr, 30, kEqNoValue, new TestItem(recorder, "delayed", body), 0, nullptr), 0);
        ASSERT_TRUE(ran.Wait());
        EXPECT_GE(ranAt - posted, 29ms);
        ASSERT_TRUE(real.WaitIdle());
    }
    EXPECT_EQ(recorder.Runs(), (Events{"delayed"}));
    ExpectEachReleasedOnce();
}

}  // namespace
