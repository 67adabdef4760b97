#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/clock.h"
#include "host/event_queue_service.h"
#include "plugin/easy_event_queue.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

constexpr int32_t kNotReady = 21;

// A host queue that keeps what it is given, so that a test can run or
// release the items itself.
class RecordingQueue final : public IEventQueue {
public:
    int32_t CreateGroup(EqGroupHandle* group) override {
        if (createGroupStatus) return createGroupStatus;
        *group = 42;
        return 0;
    }
    int32_t CancelGroup(EqGroupHandle) override { return 0; }
    int32_t ReleaseGroup(EqGroupHandle group) override {
        releasedGroups.push_back(group);
        return 0;
    }
    int32_t Cancel(EqItemId) override { return 1168; }
    int32_t Post(const wchar_t* queueName, uint32_t delayMs, uint32_t second, EqWorkItem* item, EqGroupHandle group,
                 EqItemId* id) override {
        posted.emplace_back(queueName, delayMs, second, group);
        items.push_back(item);
        if (id) *id = items.size();
        return 0;
    }

    int32_t createGroupStatus = 0;
    std::vector<std::tuple<std::wstring, uint32_t, uint32_t, EqGroupHandle>> posted;  // name, delay, second, group
    std::vector<EqWorkItem*> items;
    std::vector<EqGroupHandle> releasedGroups;
};

TEST(EasyEventQueue, BindsOncePostsUnderItsNameAndGroupAndReleasesTheGroupOnShutdown) {
    RecordingQueue host, failing;  // outlive the client, whose destructor releases its group
    failing.createGroupStatus = 1627;
    qv::EasyEventQueue queue;
    EXPECT_EQ(queue.Post([] {}, 0), kNotReady);
    EXPECT_EQ(queue.Init(nullptr, L"CondAggregate"), qv::status::kInvalidParameter);
    EXPECT_EQ(queue.Init(&failing, L"CondAggregate"), qv::status::kFunctionFailed);
    EXPECT_FALSE(queue.Initialized());
    ASSERT_EQ(queue.Init(&host, L"CondAggregate"), 0);
    EXPECT_EQ(queue.Init(&host, L"CondAggregate"), qv::status::kAlreadyExists);
    EXPECT_TRUE(queue.Initialized());
    EXPECT_EQ(queue.name(), L"CondAggregate");

    int runs = 0;
    EqItemId id = 0;
    ASSERT_EQ(queue.Post([&] { ++runs; }, 20000, std::nullopt, &id), 0);
    ASSERT_EQ(queue.Post([&] { runs += 10; }, 5, 300u), 0);
    EXPECT_EQ(id, 1u);
    using Posted = decltype(host.posted);
    EXPECT_EQ(host.posted, (Posted{{L"CondAggregate", 20000, kEqNoValue, 42}, {L"CondAggregate", 5, 300, 42}}));
    EXPECT_EQ(queue.PendingCount(), 2u);

    host.items[1]->Run();
    EXPECT_EQ(runs, 10);
    EXPECT_EQ(queue.PendingCount(), 1u);  // started items are no longer pending
    host.items[1]->Release();
    host.items[0]->Release();
    EXPECT_EQ(runs, 10);
    EXPECT_EQ(queue.PendingCount(), 0u);

    queue.Shutdown();
    queue.Shutdown();
    EXPECT_EQ(host.releasedGroups, std::vector<EqGroupHandle>{42});
    EXPECT_FALSE(queue.Initialized());
    EXPECT_EQ(queue.Post([] {}, 0), kNotReady);
}

TEST(EasyEventQueue, FailingCallableIsLoggedAndDoesNotEscapeRun) {
    testing_support::LogCapture log;
    RecordingQueue host;
    {
        qv::EasyEventQueue queue;
        ASSERT_EQ(queue.Init(&host, L"Q"), 0);
        ASSERT_EQ(queue.Post(std::function<void()>(), 0), 0);
        ASSERT_EQ(queue.Post([] { throw std::runtime_error("boom"); }, 0), 0);
    }
    // The client is gone; its items must still run and release safely.
    for (EqWorkItem* item : host.items) {
        EXPECT_NO_THROW(item->Run());
        item->Release();
    }
    const auto errors = log.Messages(logging::kError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0].find(L"bad_function_call"), std::wstring::npos) << errors[0];
    EXPECT_EQ(errors[1], L"work item failed: boom");
}

class EasyEventQueueOnHost : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(service.CreateQueue(L"Cond.IsOvraConn", &handle), 0); }
    void TearDown() override {
        service.StopQueue(handle);
        service.WaitQueue(handle, 0xFFFFFFFFu);
        service.ReleaseQueue(handle);
    }
    // A token whose expiry shows that a callable holding it was destroyed.
    std::weak_ptr<int> Watch(std::shared_ptr<int>& token) { return token = std::make_shared<int>(0); }

    host::ManualClock clock;
    host::EventQueueService service{clock};
    IEventQueue* handle = nullptr;
};

// Shutdown cancels only the client's own pending items; stopping the host
// handle releases the rest, after which posts get the host's refusal.
TEST_F(EasyEventQueueOnHost, ShutdownCancelsOnlyThisClientsItemsAndAStoppedHandleRefusesPosts) {
    qv::EasyEventQueue mine, theirs;
    ASSERT_EQ(mine.Init(handle, L"Cond.IsOvraConn"), 0);
    ASSERT_EQ(theirs.Init(handle, L"Cond.IsOvraConn"), 0);
    std::shared_ptr<int> token;
    auto watch = Watch(token);
    std::atomic<int> mineRuns{0}, theirRuns{0};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(mine.Post([&mineRuns, token] { ++mineRuns; }, 100), 0);
    std::thread::id ranOn;
    ASSERT_EQ(theirs.Post(
                  [&] {
                      ranOn = std::this_thread::get_id();
                      ++theirRuns;
                  },
                  100),
              0);
    ASSERT_EQ(theirs.Post([] {}, 1000), 0);
    token.reset();
    EXPECT_EQ(mine.PendingCount(), 3u);

    mine.Shutdown();
    EXPECT_EQ(mine.PendingCount(), 0u);
    EXPECT_TRUE(watch.expired());  // the cancelled items were released
    EXPECT_EQ(mine.Post([&] { ++mineRuns; }, 0), kNotReady);
    clock.Advance(100);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(mineRuns.load(), 0);
    EXPECT_EQ(theirRuns.load(), 1);
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_EQ(theirs.PendingCount(), 1u);

    ASSERT_EQ(service.StopQueue(handle), 0);
    EXPECT_EQ(theirs.PendingCount(), 0u);
    watch = Watch(token);
    EqItemId id = 7;
    EXPECT_EQ(theirs.Post([token] {}, 0, std::nullopt, &id), kNotReady);
    token.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(theirs.PendingCount(), 0u);
    theirs.Shutdown();  // releasing the group of a stopped handle still works
}

TEST_F(EasyEventQueueOnHost, PostsFromManyThreadsAndFromInsideItemsAllRun) {
    qv::EasyEventQueue queue;
    ASSERT_EQ(queue.Init(handle, L"Cond.IsOvraConn"), 0);
    std::atomic<int> runs{0};
    std::atomic<int> refused{0};
    auto followUp = [&] {
        ++runs;
        if (queue.Post([&] { ++runs; }, 0) != 0) ++refused;  // a follow-up from the queue thread
    };
    {
        std::vector<std::jthread> posters;
        for (int t = 0; t < 4; ++t)
            posters.emplace_back([&] {
                for (int i = 0; i < 50; ++i)
                    if (queue.Post(followUp, static_cast<uint32_t>(i % 3)) != 0) ++refused;
            });
    }
    clock.Advance(2);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(runs.load(), 400);
    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(queue.PendingCount(), 0u);
}

}  // namespace
