// The poller shared by file conditions: one thread for all clients, started
// with the first and ended with the last, and the promise that a client is
// never touched once Unregister has returned.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "conditions/file_poller.h"
#include "support/waiting.h"

namespace condition_testing {
namespace {

using Product::Integration::ConditionManager::FilePoller;
using testing_support::Eventually;
using namespace std::chrono_literals;

constexpr uint32_t kFastIntervalMs = 1;

// Counts its polls and runs `onPoll` (if set) inside each.
class CountingClient final : public FilePoller::Client {
public:
    void Poll() override {
        ++polls;
        if (onPoll) onPoll();
    }
    std::atomic<int> polls{0};
    std::function<void()> onPoll;
};

TEST(FilePoller, PollsEveryClientRepeatedlyAndRunsOnlyWhileItHasClients) {
    FilePoller poller(kFastIntervalMs);
    CountingClient a, b;
    EXPECT_FALSE(poller.Running());
    ASSERT_TRUE(poller.Register(&a));
    EXPECT_FALSE(poller.Register(&a));
    ASSERT_TRUE(poller.Register(&b));
    EXPECT_TRUE(poller.Running());
    EXPECT_EQ(poller.ClientCount(), 2u);
    EXPECT_TRUE(Eventually([&] { return a.polls > 3 && b.polls > 3; }));
    poller.Unregister(&a);
    EXPECT_TRUE(poller.Running());
    const int aPolls = a.polls;
    EXPECT_TRUE(Eventually([&] { return b.polls > 10; }));
    EXPECT_EQ(a.polls, aPolls);
    poller.Unregister(&b);
    EXPECT_FALSE(poller.Running());
    poller.Unregister(&b);  // no longer registered: nothing happens
    // A new first client starts a new thread.
    ASSERT_TRUE(poller.Register(&a));
    EXPECT_TRUE(Eventually([&] { return a.polls > aPolls; }));
    poller.Unregister(&a);
    EXPECT_FALSE(poller.Running());
}

// Unregister waits for the poll of that client in progress; afterwards the
// client is not polled again.
TEST(FilePoller, UnregisterWaitsForAPollInProgress) {
    FilePoller poller(kFastIntervalMs);
    CountingClient client;
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    client.onPoll = [&] {
        if (first.exchange(false)) {
            entered.set_value();
            released.wait();
        }
    };
    ASSERT_TRUE(poller.Register(&client));
    entered.get_future().wait();
    std::atomic<bool> unregistered{false};
    std::thread other([&] {
        poller.Unregister(&client);
        unregistered = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(unregistered);
    release.set_value();
    other.join();
    EXPECT_TRUE(unregistered);
    const int polls = client.polls;
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(client.polls, polls);
    EXPECT_FALSE(poller.Running());
}

// From inside a poll (a subscriber uninitialising conditions), Unregister of
// the polled client or of another one returns at once, and neither is polled
// again; the last one leaving ends the thread.
TEST(FilePoller, UnregisterFromInsideAPollDoesNotWaitForItself) {
    FilePoller poller(kFastIntervalMs);
    CountingClient self, other;
    self.onPoll = [&] {
        poller.Unregister(&other);
        poller.Unregister(&self);
    };
    ASSERT_TRUE(poller.Register(&other));
    ASSERT_TRUE(poller.Register(&self));
    EXPECT_TRUE(Eventually([&] { return !poller.Running(); }));
    const int otherPolls = other.polls;
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(self.polls, 1);
    EXPECT_EQ(other.polls, otherPolls);
    EXPECT_EQ(poller.ClientCount(), 0u);
    // The poller still serves new clients afterwards.
    CountingClient late;
    ASSERT_TRUE(poller.Register(&late));
    EXPECT_TRUE(Eventually([&] { return late.polls > 0; }));
    poller.Unregister(&late);
}

}  // namespace
}  // namespace condition_testing
