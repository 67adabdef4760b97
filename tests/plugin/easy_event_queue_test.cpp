#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/clock.h"
#include "host/event_queue_service.h"
#include "plugin/easy_event_queue.h"
#include "support/log_capture.h"

namespace {

constexpr int32_t kNotReady = 21;
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kAlreadyExists = 183;

// A host queue that keeps what it is given, so that a test can run or
// release the items itself.
class RecordingQueue final : public IEventQueue {
public:
    struct Posted {
        std::wstring name;
        uint32_t delayMs = 0;
        uint32_t second = 0;
        EqWorkItem* item = nullptr;
        EqGroupHandle group = 0;
    };

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
    int32_t Post(const wchar_t* queueName, uint32_t delayMs, uint32_t second, EqWorkItem* item,
                 EqGroupHandle group, EqItemId* id) override {
        if (postStatus) {
            item->Release();
            return postStatus;
        }
        posted.push_back({queueName, delayMs, second, item, group});
        if (id) *id = posted.size();
        return 0;
    }

    int32_t createGroupStatus = 0;
    int32_t postStatus = 0;
    std::vector<Posted> posted;
    std::vector<EqGroupHandle> releasedGroups;
};

TEST(EasyEventQueue, PostsUnderItsNameAndGroupWithTheSecondValueOrNoValue) {
    RecordingQueue host;
    qv::EasyEventQueue queue;
    EXPECT_FALSE(queue.Initialized());
    ASSERT_EQ(queue.Init(&host, L"CondAggregate"), 0);
    EXPECT_TRUE(queue.Initialized());
    EXPECT_EQ(queue.name(), L"CondAggregate");

    int runs = 0;
    EqItemId id = 0;
    ASSERT_EQ(queue.Post([&] { ++runs; }, 20000, std::nullopt, &id), 0);
    ASSERT_EQ(queue.Post([&] { runs += 10; }, 5, 300u), 0);
    EXPECT_EQ(id, 1u);
    ASSERT_EQ(host.posted.size(), 2u);
    EXPECT_EQ(host.posted[0].name, L"CondAggregate");
    EXPECT_EQ(host.posted[0].delayMs, 20000u);
    EXPECT_EQ(host.posted[0].second, kEqNoValue);
    EXPECT_EQ(host.posted[0].group, 42u);
    EXPECT_EQ(host.posted[1].delayMs, 5u);
    EXPECT_EQ(host.posted[1].second, 300u);
    EXPECT_EQ(queue.PendingCount(), 2u);

    host.posted[1].item->Run();
    EXPECT_EQ(runs, 10);
    EXPECT_EQ(queue.PendingCount(), 1u);  // started items are no longer pending
    host.posted[1].item->Release();
    host.posted[0].item->Release();
    EXPECT_EQ(runs, 10);
    EXPECT_EQ(queue.PendingCount(), 0u);

    queue.Shutdown();
    queue.Shutdown();
    EXPECT_EQ(host.releasedGroups, std::vector<EqGroupHandle>{42});
    EXPECT_FALSE(queue.Initialized());
    EXPECT_EQ(queue.Post([] {}, 0), kNotReady);
}

TEST(EasyEventQueue, InitFailuresLeaveTheClientUnbound) {
    RecordingQueue host;  // outlives the client, whose destructor releases its group
    qv::EasyEventQueue queue;
    EXPECT_EQ(queue.Init(nullptr, L"Q"), kInvalidParameter);
    RecordingQueue failing;
    failing.createGroupStatus = 1627;
    EXPECT_EQ(queue.Init(&failing, L"Q"), 1627);
    EXPECT_FALSE(queue.Initialized());

    ASSERT_EQ(queue.Init(&host, L"Q"), 0);
    EXPECT_EQ(queue.Init(&host, L"Q"), kAlreadyExists);
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
    for (auto& posted : host.posted) {
        EXPECT_NO_THROW(posted.item->Run());
        posted.item->Release();
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
        if (handle) {
            service.StopQueue(handle);
            service.WaitQueue(handle, 0xFFFFFFFFu);
            service.ReleaseQueue(handle);
        }
    }

    host::ManualClock clock;
    host::EventQueueService service{clock};
    IEventQueue* handle = nullptr;
};

TEST_F(EasyEventQueueOnHost, ShutdownCancelsOnlyThisClientsPendingItems) {
    qv::EasyEventQueue mine, theirs;
    ASSERT_EQ(mine.Init(handle, L"Cond.IsOvraConn"), 0);
    ASSERT_EQ(theirs.Init(handle, L"Cond.IsOvraConn"), 0);
    auto captured = std::make_shared<int>(0);
    std::weak_ptr<int> watch = captured;
    std::atomic<int> mineRuns{0}, theirRuns{0};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(mine.Post([&mineRuns, captured] { ++mineRuns; }, 100), 0);
    std::thread::id ranOn;
    ASSERT_EQ(theirs.Post(
                  [&] {
                      ranOn = std::this_thread::get_id();
                      ++theirRuns;
                  },
                  100),
              0);
    captured.reset();
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
}

TEST_F(EasyEventQueueOnHost, StoppedHandleRefusesPostsWithTheHostStatus) {
    qv::EasyEventQueue queue;
    ASSERT_EQ(queue.Init(handle, L"Cond.IsOvraConn"), 0);
    ASSERT_EQ(queue.Post([] {}, 1000), 0);
    ASSERT_EQ(service.StopQueue(handle), 0);
    EXPECT_EQ(queue.PendingCount(), 0u);
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> watch = captured;
    EqItemId id = 7;
    EXPECT_EQ(queue.Post([captured] {}, 0, std::nullopt, &id), kNotReady);
    captured.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(queue.PendingCount(), 0u);
    queue.Shutdown();  // releasing the group of a stopped handle still works
}

TEST_F(EasyEventQueueOnHost, PostsFromManyThreadsAndFromInsideItemsAllRun) {
    qv::EasyEventQueue queue;
    ASSERT_EQ(queue.Init(handle, L"Cond.IsOvraConn"), 0);
    std::atomic<int> runs{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                queue.Post(
                    [&] {
                        ++runs;
                        queue.Post([&] { ++runs; }, 0);  // a follow-up from the queue thread
                    },
                    static_cast<uint32_t>(i % 3));
            }
        });
    }
    for (auto& t : posters) t.join();
    clock.Advance(2);
    ASSERT_TRUE(service.WaitIdle());
    EXPECT_EQ(runs.load(), 400);
    EXPECT_EQ(queue.PendingCount(), 0u);
}

}  // namespace
