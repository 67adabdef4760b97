#include "plugin/subscriber_container.h"

#include <gtest/gtest.h>

#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <vector>

#include "os/event.h"
#include "thread_actor.h"

using lock_testing::Eventually;
using lock_testing::Finishes;
using lock_testing::Pending;
using lock_testing::ThreadActor;

namespace {

struct Listener {
    int name = 0;
};

using Container = qv::SynchronyzedObjectContainer<Listener*>;

std::vector<Listener*> Contents(Container& container) {
    std::vector<Listener*> out;
    container.ForEach([&](Listener* listener) { out.push_back(listener); });
    return out;
}

}  // namespace

TEST(SubscriberContainer, KeepsSubscriptionOrderWithoutDuplicates) {
    Container container;
    Listener a{1}, b{2}, c{3};
    EXPECT_TRUE(container.Empty());

    EXPECT_EQ(container.Add(&a), 0);
    EXPECT_EQ(container.Add(&b), 0);
    EXPECT_EQ(container.Add(&c), 0);
    EXPECT_EQ(container.Add(&b), 1627);
    EXPECT_EQ(container.Add(nullptr), 87);
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&a, &b, &c}));
    EXPECT_EQ(container.Size(), 3u);

    EXPECT_EQ(container.Remove(&b), 0);
    EXPECT_EQ(container.Remove(&b), 1627);
    EXPECT_FALSE(container.Contains(&b));
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&a, &c}));

    EXPECT_EQ(container.Add(&b), 0) << "a removed subscriber may come back, at the end";
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&a, &c, &b}));

    EXPECT_EQ(container.Remove(&a), 0);
    EXPECT_EQ(container.Remove(&c), 0);
    EXPECT_EQ(container.Remove(&b), 0);
    EXPECT_TRUE(container.Empty());
    EXPECT_EQ(container.Remove(&a), 1627);
}

TEST(SubscriberContainer, ChangesWaitForARunningWalk) {
    Container container;
    Listener a{1}, b{2};
    ASSERT_EQ(container.Add(&a), 0);
    ThreadActor walker, changer;
    os::AutoResetEvent inside, proceed;

    auto walk = walker.Post([&] {
        container.ForEach([&](Listener*) {
            inside.Set();
            proceed.Wait(os::kInfinite);
        });
    });
    ASSERT_TRUE(inside.Wait(10000));
    auto add = changer.Post([&] { EXPECT_EQ(container.Add(&b), 0); });
    ASSERT_TRUE(Eventually([&] { return container.Snapshot().waitingWriters == 1; }));
    EXPECT_TRUE(Pending(add));

    proceed.Set();
    ASSERT_TRUE(Finishes(walk));
    ASSERT_TRUE(Finishes(add));
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&a, &b}));
}

TEST(SubscriberContainer, AWalkingHandlerMayReadTheContainerAgainEvenWithAWriterWaiting) {
    Container container;
    Listener a{1}, b{2}, c{3};
    ASSERT_EQ(container.Add(&a), 0);
    ASSERT_EQ(container.Add(&b), 0);
    ThreadActor walker, changer;
    std::future<void> add;
    std::vector<size_t> sizesSeen;

    auto walk = walker.Post([&] {
        container.ForEach([&](Listener* listener) {
            if (listener == &a) {
                add = changer.Post([&] { EXPECT_EQ(container.Add(&c), 0); });
                ASSERT_TRUE(Eventually([&] { return container.Snapshot().waitingWriters == 1; }));
            }
            // Nested reads must not queue behind the waiting writer.
            sizesSeen.push_back(container.Size());
            EXPECT_TRUE(container.Contains(listener));
            EXPECT_EQ(Contents(container).size(), 2u);
        });
    });
    ASSERT_TRUE(Finishes(walk));
    walk.get();
    ASSERT_TRUE(add.valid());
    ASSERT_TRUE(Finishes(add));
    EXPECT_EQ(sizesSeen, (std::vector<size_t>{2, 2}));
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&a, &b, &c}));
}

TEST(SubscriberContainer, ALoneWalkerThatChangesTheListNeitherDeadlocksNorDangles) {
    Container container;
    Listener a{1}, b{2}, c{3};
    ASSERT_EQ(container.Add(&a), 0);
    ASSERT_EQ(container.Add(&b), 0);
    std::vector<int> visited;

    container.ForEach([&](Listener* listener) {
        visited.push_back(listener->name);
        if (listener == &a) {
            EXPECT_EQ(container.Remove(&a), 0);
            EXPECT_EQ(container.Add(&c), 0);
        }
    });
    // Position-based walking: removing the current element shifts b into its
    // slot, so b is skipped; c, appended, is reached.
    EXPECT_EQ(visited, (std::vector<int>{1, 3}));
    EXPECT_EQ(Contents(container), (std::vector<Listener*>{&b, &c}));
    EXPECT_FALSE(container.Snapshot().writerActive);
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);
}

TEST(SubscriberContainer, CanBeLockedAsAWholeWithStandardGuards) {
    Container container;
    Listener a{1};
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
        auto read = other.Post([&] { EXPECT_EQ(container.Size(), 1u); });
        EXPECT_TRUE(Finishes(read)) << "readers share";
    }
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);
}

TEST(SubscriberContainer, AnExceptionFromAHandlerEndsTheWalkAndReleasesTheLock) {
    Container container;
    Listener a{1}, b{2};
    ASSERT_EQ(container.Add(&a), 0);
    ASSERT_EQ(container.Add(&b), 0);
    int calls = 0;
    EXPECT_THROW(container.ForEach([&](Listener*) {
        ++calls;
        throw std::runtime_error("handler failed");
    }),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(container.Snapshot().readingThreads, 0u);
    EXPECT_EQ(container.Remove(&a), 0);
}
