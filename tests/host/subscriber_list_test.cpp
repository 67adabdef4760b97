// Delivery of the reference host's reports: outside the services' locks, one
// report after the other, and no call to a subscriber once it has left.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/subscriber_list.h"
#include "host/user_manager.h"
#include "qv/status.h"

namespace {

using namespace std::chrono_literals;

// Long enough never to expire on a loaded machine; only a fault waits it out.
constexpr auto kPatience = 10s;

struct Subscriber {
    std::function<void()> onReport;
    std::vector<int> seen;
};

using List = host::SubscriberList<Subscriber>;

size_t Report(List& list, int report) {
    return list.Notify([&](Subscriber* s) {
        s->seen.push_back(report);
        if (s->onReport) s->onReport();
    });
}

TEST(SubscriberList, ASubscriberMayLeaveOrReportAgainFromItsCallback) {
    List list;
    Subscriber first, second, third;
    ASSERT_EQ(list.Add(&first), 0);
    ASSERT_EQ(list.Add(&second), 0);
    ASSERT_EQ(list.Add(&third), 0);
    EXPECT_EQ(list.Add(&first), qv::status::kFunctionFailed);
    EXPECT_EQ(list.Add(nullptr), qv::status::kInvalidParameter);

    // The first leaves and removes the third: neither waits for itself, and
    // the third, gone before its turn, is skipped.
    first.onReport = [&] {
        EXPECT_EQ(list.Remove(&first), 0);
        EXPECT_EQ(list.Remove(&third), 0);
    };
    // The second reports again: that report is delivered at once, inside.
    second.onReport = [&] {
        second.onReport = nullptr;
        Report(list, 2);
    };
    EXPECT_EQ(Report(list, 1), 2u);
    EXPECT_EQ(first.seen, (std::vector<int>{1}));
    EXPECT_EQ(second.seen, (std::vector<int>{1, 2}));
    EXPECT_TRUE(third.seen.empty());
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(list.Remove(&third), qv::status::kFunctionFailed);
}

TEST(SubscriberList, RemoveOnAnotherThreadWaitsForTheReportInProgress) {
    List list;
    Subscriber slow, other;
    std::promise<void> inCallback, release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> callEnded{false};
    slow.onReport = [&] {
        inCallback.set_value();
        released.wait();
        callEnded = true;
    };
    ASSERT_EQ(list.Add(&slow), 0);
    ASSERT_EQ(list.Add(&other), 0);
    std::thread reporter([&] { Report(list, 1); });
    inCallback.get_future().wait();

    // The subscriber not yet called leaves: its removal waits for the report
    // to end, and is not called by the next one.
    auto removal = std::async(std::launch::async, [&] { return list.Remove(&other); });
    EXPECT_EQ(removal.wait_for(100ms), std::future_status::timeout);
    release.set_value();
    ASSERT_EQ(removal.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(removal.get(), 0);
    EXPECT_TRUE(callEnded);
    reporter.join();
    EXPECT_EQ(other.seen, (std::vector<int>{1}));
    slow.onReport = nullptr;
    EXPECT_EQ(Report(list, 2), 1u);
    EXPECT_EQ(other.seen, (std::vector<int>{1}));
}

TEST(SubscriberList, ReportsFromTwoThreadsAreDeliveredOneAfterTheOther) {
    List list;
    Subscriber subscriber;
    std::atomic<int> inside{0};
    std::atomic<int> mostInside{0};
    subscriber.onReport = [&] {
        const int now = ++inside;
        if (now > mostInside) mostInside = now;
        std::this_thread::sleep_for(1ms);
        --inside;
    };
    ASSERT_EQ(list.Add(&subscriber), 0);
    std::vector<std::thread> reporters;
    for (int t = 0; t < 4; ++t)
        reporters.emplace_back([&] {
            for (int i = 0; i < 20; ++i) Report(list, i);
        });
    for (std::thread& reporter : reporters) reporter.join();
    EXPECT_EQ(mostInside, 1);
    EXPECT_EQ(subscriber.seen.size(), 80u);
}

// A subscriber that hands its work to another thread and waits for it: that
// thread reads the service. Under the service's lock it would wait until the
// callback gives up.
class WaitsForAReaderThread final : public Product::UserManager::IUserManager::IEvents {
    using UserInfo = Product::UserManager::UserInfo;

public:
    explicit WaitsForAReaderThread(host::UserManager& users) : users_(users) {}
    ~WaitsForAReaderThread() {
        if (reader_.joinable()) reader_.join();
    }
    int32_t OnUserLoggedOn(const UserInfo&) override {
        std::future<size_t> read = usersRead_.get_future();
        reader_ = std::thread([this] {
            std::vector<UserInfo> now;
            usersRead_.set_value(users_.GetLoggedUsers(&now) == 0 ? now.size() : 0u);
        });
        readerFinished = read.wait_for(kPatience) == std::future_status::ready;
        if (readerFinished) usersSeen = read.get();
        return 0;
    }
    int32_t OnUserLoggedOff(const UserInfo&) override { return 0; }
    int32_t OnUserSessionLocked(const UserInfo&) override { return 0; }
    int32_t OnUserSessionUnlocked(const UserInfo&) override { return 0; }

    bool readerFinished = false;
    size_t usersSeen = 0;

private:
    host::UserManager& users_;
    std::promise<size_t> usersRead_;
    std::thread reader_;
};

TEST(SubscriberList, AServiceCallsItsSubscribersOutsideItsLock) {
    host::UserManager users;
    WaitsForAReaderThread subscriber(users);
    ASSERT_EQ(users.Subscribe(&subscriber), 0);
    ASSERT_EQ(users.LogOn({L"S-1-5-21-1-2-3-1104", L"alice", L"corp.local", {}}), 0);
    EXPECT_TRUE(subscriber.readerFinished);
    EXPECT_EQ(subscriber.usersSeen, 1u);
    EXPECT_EQ(users.Unsubscribe(&subscriber), 0);
}

}  // namespace
