#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/clock.h"
#include "host/event_queue_service.h"

namespace {

using namespace std::chrono_literals;
using Events = std::vector<std::string>;

constexpr int32_t kNotReady = 21;
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kNotFound = 1168;
constexpr int32_t kTimeout = 1460;
constexpr uint32_t kForever = 0xFFFFFFFFu;

// A one-shot flag that threads wait for with a real-time limit.
class Signal {
public:
    void Set() {
        std::lock_guard lock(mutex_);
        set_ = true;
        cv_.notify_all();
    }
    bool Wait(std::chrono::milliseconds timeout = 10s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [this] { return set_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool set_ = false;
};

// What happened to labelled items, in order: "new:x", "run:x", "release:x".
class Recorder {
public:
    void Add(std::string event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    Events All() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    Events Runs() const {
        Events runs;
        for (const auto& e : All())
            if (e.rfind("run:", 0) == 0) runs.push_back(e.substr(4));
        return runs;
    }
    int Count(const std::string& event) const {
        int n = 0;
        for (const auto& e : All()) n += e == event;
        return n;
    }
private:
    mutable std::mutex mutex_;
    Events events_;
};

class TestItem final : public EqWorkItem {
public:
    TestItem(Recorder& recorder, std::string label, std::function<void()> body = {})
        : recorder_(recorder), label_(std::move(label)), body_(std::move(body)) {
        recorder_.Add("new:" + label_);
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
    int32_t Post(IEventQueue* queue, const std::string& label, uint32_t delayMs = 0,
                 std::function<void()> body = {}, uint32_t expireMs = kEqNoValue, EqGroupHandle group = 0,
                 EqItemId* id = nullptr) {
        return queue->Post(nullptr, delayMs, expireMs, new TestItem(recorder, label, std::move(body)), group, id);
    }
    // Every item made was released exactly once, and after its run if it ran.
    void ExpectEachReleasedOnce() {
        Events all = recorder.All();
        for (const auto& e : all) {
            if (e.rfind("new:", 0) != 0) continue;
            const std::string label = e.substr(4);
            EXPECT_EQ(recorder.Count("release:" + label), 1) << label;
            auto run = std::find(all.begin(), all.end(), "run:" + label);
            if (run != all.end()) {
                EXPECT_LT(run, std::find(all.begin(), all.end(), "release:" + label)) << label;
            }
        }
    }
    Events Without(const std::string& prefix) const {
        Events out;
        for (const auto& e : recorder.All())
            if (e.rfind(prefix, 0) != 0) out.push_back(e);
        return out;
    }

    Recorder recorder;  // outlives the service, which releases leftovers
    host::ManualClock clock;
    host::EventQueueService service{clock};
};

TEST_F(EventQueueServiceTest, RunsItemsInDueOrderAndFifoAmongEqualDueTimes) {
    IEventQueue* q = Open(L"Q");
    for (auto [label, delay] : {std::pair{"late", 30}, {"mid1", 10}, {"mid2", 10}, {"last", 30}, {"mid3", 10}})
        ASSERT_EQ(Post(q, label, delay), 0);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_TRUE(recorder.Runs().empty());

    clock.Advance(30);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"mid1", "mid2", "mid3", "late", "last"}));
    EXPECT_EQ(service.PendingCount(), 0u);
    ASSERT_EQ(service.ReleaseQueue(q), 0);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, DelayedItemRunsExactlyWhenTheClockReachesItsDueTime) {
    IEventQueue* q = Open(L"Q");
    std::thread::id ranOn;
    ASSERT_EQ(Post(q, "debounced", 20000, [&] { ranOn = std::this_thread::get_id(); }), 0);
    clock.Advance(19999);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(service.PendingCount(), 1u);

    clock.Advance(1);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(Without("new:"), (Events{"run:debounced", "release:debounced"}));
    EXPECT_NE(ranOn, std::this_thread::get_id());
    service.ReleaseQueue(q);
}

TEST_F(EventQueueServiceTest, CancelByIdReleasesOnlyThatPendingItemOfItsOwnClient) {
    IEventQueue* q = Open(L"Q");
    IEventQueue* other = Open(L"Q");
    EqItemId a = 0, b = 0;
    ASSERT_EQ(Post(q, "a", 100, {}, kEqNoValue, 0, &a), 0);
    ASSERT_EQ(Post(q, "b", 100, {}, kEqNoValue, 0, &b), 0);
    ASSERT_NE(a, 0u);
    ASSERT_NE(a, b);

    EXPECT_EQ(other->Cancel(a), kNotFound);
    EXPECT_EQ(q->Cancel(a), 0);
    EXPECT_EQ(Without("new:"), (Events{"release:a"}));
    EXPECT_EQ(q->Cancel(a), kNotFound);

    clock.Advance(100);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"b"}));
    EXPECT_EQ(q->Cancel(b), kNotFound);  // already ran
    service.ReleaseQueue(other);
    service.ReleaseQueue(q);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, GroupsCancelTheirOwnPendingItemsOnly) {
    IEventQueue* q = Open(L"Q");
    IEventQueue* other = Open(L"Q");
    EqGroupHandle g1 = 0, g2 = 0, foreign = 0;
    ASSERT_EQ(q->CreateGroup(&g1), 0);
    ASSERT_EQ(q->CreateGroup(&g2), 0);
    ASSERT_EQ(other->CreateGroup(&foreign), 0);
    ASSERT_NE(g1, g2);

    Post(q, "g1a", 10, {}, kEqNoValue, g1);
    Post(q, "g1b", 20, {}, kEqNoValue, g1);
    Post(q, "g2", 10, {}, kEqNoValue, g2);
    Post(q, "none", 10);
    EXPECT_EQ(Post(q, "foreign", 10, {}, kEqNoValue, foreign), kInvalidParameter);
    EXPECT_EQ(other->CancelGroup(g1), kNotFound);

    EXPECT_EQ(q->CancelGroup(g1), 0);
    // A cancelled group stays usable; a released one is gone.
    EXPECT_EQ(Post(q, "g1c", 10, {}, kEqNoValue, g1), 0);
    EXPECT_EQ(q->ReleaseGroup(g1), 0);
    EXPECT_EQ(Without("new:"), (Events{"release:foreign", "release:g1a", "release:g1b", "release:g1c"}));
    EXPECT_EQ(q->CancelGroup(g1), kNotFound);
    EXPECT_EQ(Post(q, "g1d", 10, {}, kEqNoValue, g1), kInvalidParameter);

    clock.Advance(20);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"g2", "none"}));
    service.ReleaseQueue(other);
    service.ReleaseQueue(q);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, StopWaitAndReleaseAffectOnlyTheirOwnHandle) {
    IEventQueue* a = Open(L"Shared");
    IEventQueue* b = Open(L"Shared");
    Signal started, gate;
    ASSERT_EQ(Post(a, "a-blocking", 0, [&] { started.Set(); gate.Wait(); }), 0);
    ASSERT_TRUE(started.Wait());
    Post(a, "a-pending", 10);
    Post(b, "b-pending", 10);

    // a's item is running: waiting for a times out, b has nothing running.
    EXPECT_EQ(service.WaitQueue(a, 30), kTimeout);
    EXPECT_EQ(service.WaitQueue(b, kForever), 0);

    ASSERT_EQ(service.StopQueue(a), 0);
    EXPECT_EQ(recorder.Count("release:a-pending"), 1);
    EXPECT_EQ(Post(a, "a-refused", 0), kNotReady);
    EXPECT_EQ(recorder.Count("release:a-refused"), 1);
    EqGroupHandle g = 0;
    EXPECT_EQ(a->CreateGroup(&g), kNotReady);

    gate.Set();
    EXPECT_EQ(service.WaitQueue(a, kForever), 0);
    EXPECT_EQ(recorder.Count("release:a-blocking"), 1);  // released before the wait ends
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
    Post(a, "first", 0, [&] { started.Set(); gate.Wait(); });
    ASSERT_TRUE(started.Wait());
    Post(a2, "second");
    std::this_thread::sleep_for(50ms);
    gate.Set();
    ASSERT_TRUE(service.WaitIdle());
    Events order = Without("new:");
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

TEST_F(EventQueueServiceTest, ItemsThatCouldNotStartInTimeAreDroppedUnrun) {
    IEventQueue* q = Open(L"Q");
    Signal started, gate;
    Post(q, "blocking", 0, [&] { started.Set(); gate.Wait(); });
    ASSERT_TRUE(started.Wait());
    Post(q, "expires-100", 0, {}, 100);
    Post(q, "expires-101", 0, {}, 101);
    Post(q, "delayed-expires-0", 101, {}, 0);
    Post(q, "never-expires", 0);
    clock.Advance(101);
    gate.Set();
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"blocking", "expires-101", "never-expires", "delayed-expires-0"}));
    service.ReleaseQueue(q);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, RefusedAndThrowingItemsAreReleasedAndTheWorkerCarriesOn) {
    IEventQueue* q = nullptr;
    EXPECT_EQ(service.CreateQueue(L"", &q), kInvalidParameter);
    q = Open(L"Q");
    EXPECT_EQ(q->Post(L"Other", 0, kEqNoValue, new TestItem(recorder, "wrong-name"), 0, nullptr), kInvalidParameter);
    EXPECT_EQ(q->Post(L"Q", 0, kEqNoValue, nullptr, 0, nullptr), kInvalidParameter);
    Post(q, "throws", 0, [] { throw std::runtime_error("boom"); });
    EXPECT_EQ(q->Post(L"Q", 0, kEqNoValue, new TestItem(recorder, "next"), 0, nullptr), 0);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(recorder.Runs(), (Events{"throws", "next"}));
    EXPECT_EQ(recorder.Count("release:wrong-name"), 1);
    service.ReleaseQueue(q);
    EXPECT_EQ(service.ReleaseQueue(q), kInvalidParameter);
    ExpectEachReleasedOnce();
}

TEST_F(EventQueueServiceTest, DestructorReleasesPendingItemsOfHandlesStillHeld) {
    {
        host::EventQueueService local(clock);
        IEventQueue* q = nullptr;
        ASSERT_EQ(local.CreateQueue(L"Q", &q), 0);
        q->Post(nullptr, 1000, kEqNoValue, new TestItem(recorder, "pending"), 0, nullptr);
        q->Post(nullptr, 0, kEqNoValue, new TestItem(recorder, "now"), 0, nullptr);
        ASSERT_TRUE(local.WaitIdle());
    }
    EXPECT_EQ(recorder.Runs(), (Events{"now"}));
    ExpectEachReleasedOnce();
}

TEST(EventQueueServiceSystemClock, DelaysFollowRealTime) {
    Recorder recorder;
    host::SystemClock clock;
    host::EventQueueService service(clock);
    IEventQueue* q = nullptr;
    ASSERT_EQ(service.CreateQueue(L"Q", &q), 0);
    Signal ran;
    const auto posted = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point ranAt;
    auto body = [&] {
        ranAt = std::chrono::steady_clock::now();
        ran.Set();
    };
    q->Post(nullptr, 30, kEqNoValue, new TestItem(recorder, "delayed", body), 0, nullptr);
    ASSERT_TRUE(ran.Wait());
    EXPECT_GE(ranAt - posted, 29ms);
    service.StopQueue(q);
    service.WaitQueue(q, kForever);
    service.ReleaseQueue(q);
}

}  // namespace
