#include "plugin/subscriber_container.h"

#include <gtest/gtest.h>

#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <vector>

#include "qv/status.h"
#include "thread_actor.h"

using namespace lock_testing;  // ThreadActor and the bounded waits

namespace {

using Container = qv::SynchronyzedObjectContainer<int*>;
using List = std::vector<int*>;

List Contents(Container& container) {
    List out;
    container.ForEach([&](int* subscriber) { out.push_back(subscriber); });
    return out;
}

}  // namespace

TEST(SubscriberContainer, KeepsSubscriptionOrderWithoutDuplicates) {
    Container container;
    int a = 1, b = 2, c = 3;
    EXPECT_TRUE(container.Empty());
    for (int* p : {&a, &b, &c}) EXPECT_EQ(container.Add(p), 0);
    EXPECT_EQ(container.Add(&b), qv::status::kFunctionFailed);
    EXPECT_EQ(container.Add(nullptr), qv::status::kInvalidParameter);
    EXPECT_EQ(Contents(container), (List{&a, &b, &c}));
    EXPECT_EQ(container.Size(), 3u);

    EXPECT_EQ(container.Remove(&b), 0);
    EXPECT_EQ(container.Remove(&b), qv::status::kFunctionFailed);
    EXPECT_FALSE(container.Contains(&b));
    EXPECT_EQ(container.Add(&b), 0) << "a removed subscriber may come back, at the end";
    EXPECT_EQ(Contents(container), (List{&a, &c, &b}));

    for (int* p : {&a, &c, &b}) EXPECT_EQ(container.Remove(p), 0);
    EXPECT_TRUE(container.Empty());
    EXPECT_EQ(container.Remove(&a), qv::status::kFunctionFailed);
}

// A change from another thread waits for the running walk, yet nested reads
// inside the walk must not queue behind that waiting writer.
TEST(SubscriberContainer, ChangesWaitForARunningWalkWhoseHandlersMayStillReadTheContainer) {
    Container container;
    int a = 1, b = 2, c = 3;
    ASSERT_EQ(container.Add(&a), 0);
    ASSERT_EQ(container.Add(&b), 0);
    ThreadActor walker, changer;
    std::future<void> add;
    std::vector<size_t> sizesSeen;

    auto walk = walker.Post([&] {
        container.ForEach([&](int* subscriber) {
            if (subscriber == &a) {
                add = changer.Post([&] { EXPECT_EQ(container.Add(&c), 0); });
                ASSERT_TRUE(Eventually([&] { return container.Snapshot().waitingWriters == 1; }));
            }
            sizesSeen.push_back(container.Size());
            EXPECT_TRUE(container.Contains(subscriber));
            EXPECT_EQ(Contents(container).size(), 2u);
            EXPECT_TRUE(Pending(add));
        });
    });
    ASSERT_TRUE(Finishes(walk));
    walk.get();
    ASSERT_TRUE(add.valid());
    ASSERT_TRUE(Finishes(add));
    EXPECT_EQ(sizesSeen, (std::vector<size_t>{2, 2}));
    EXPECT_EQ(Contents(container), (List{&a, &b, &c}));
}

TEST(SubscriberContainer, ALoneWalkerThatChangesTheListNeitherDeadlocksNorDangles) {
    Container container;
    int a = 1, b = 2, c = 3;
    ASSERT_EQ(container.Add(&a), 0);
    ASSERT_EQ(container.Add(&b), 0);
    std::vector<int> visited;

    container.ForEach([&](int* subscriber) {
        visited.push_back(*subscriber);
        if (subscriber == &a) {
            EXPECT_EQ(container.Remove(&a), 0);
            EXPECT_EQ(container.Add(&c), 0);
        }
    });
    // Position-based walking: removing the current element shifts b into its
    // slot, so b is skipped; c, appended, is reached.
    EXPECT_EQ(visited, (std::vector<int>{1, 3}));
    EXPECT_EQ(Contents(container), (List{&b, &c}));
    EXPECT_FALSE(container.Snapshot().writerActive);
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);

    // An exception from a handler ends the walk and releases the lock.
    int calls = 0;
    EXPECT_THROW(container.ForEach([&](int*) {
        ++calls;
        throw std::runtime_error("handler failed");
    }),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);
    EXPECT_EQ(container.Remove(&b), 0);
}

TEST(SubscriberContainer, CanBeLockedAsAWholeWithStandardGuards) {
    Container container;
    int a = 1;
    ThreadActor other;
    {
        std::lock_guard<Container> whole(container);
        EXPECT_EQ(container.Add(&a), 0) << "the write lock is reentrant";
        auto read = other.Post([&] { (void)container.Size(); });
        ASSERT_TRUE(Eventually([&] { return container.Snapshot().waitingReaders == 1; }));
        EXPECT_TRUE(Pending(read));
    }
    {
        std::shared_lock<Container> shared(container);
        EXPECT_EQ(Contents(container).size(), 1u);
        EXPECT_TRUE(Finishes(other.Post([&] { EXPECT_EQ(container.Size(), 1u); }))) << "readers share";
    }
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);
}
