#include "plugin/event_adaptor.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

using Log = std::vector<std::string>;

struct IEvents {
    virtual ~IEvents() = default;
    virtual int32_t OnStateChanged(bool state, size_t id) = 0;
    virtual int OnName(std::string name) = 0;
    virtual int OnList(const std::vector<int>& values) = 0;
    virtual int OnPing() = 0;
};

// Notes each call as "<name>:<arguments>" in a shared log and returns `status`.
struct Subscriber : IEvents {
    Subscriber(std::string label, int answer, Log& shared) : name(std::move(label)), status(answer), log(shared) {}
    int Note(const std::string& what) {
        log.push_back(name + ":" + what);
        return status;
    }
    int32_t OnStateChanged(bool state, size_t id) override {
        return Note(std::to_string(state) + "," + std::to_string(id));
    }
    int OnName(std::string text) override { return Note(text); }
    int OnList(const std::vector<int>& values) override {
        lists.push_back(&values);
        return status;
    }
    int OnPing() override { return Note("ping"); }

    std::string name;
    int status;
    Log& log;
    std::vector<const std::vector<int>*> lists;
};

using Subscribers = qv::SynchronyzedObjectContainer<IEvents*>;

}  // namespace

TEST(EventAdaptor, CallsEverySubscriberInOrderAndReturnsTheLastStatusOrZeroForNone) {
    Subscribers subscribers;
    qv::Event<qv::MemberFunction_2_args<IEvents, int, bool, size_t, &IEvents::OnStateChanged>> notifier(subscribers);
    Log log;
    Subscriber failing("1", 1627, log), succeeding("2", 0, log), failingLast("3", 21, log);
    EXPECT_EQ(notifier(true, size_t{4}), 0);
    EXPECT_TRUE(log.empty());

    ASSERT_EQ(subscribers.Add(&failing), 0);
    ASSERT_EQ(subscribers.Add(&succeeding), 0);
    EXPECT_EQ(notifier(true, size_t{7}), 0) << "an earlier failure is overridden by the last subscriber";
    EXPECT_EQ(log, (Log{"1:1,7", "2:1,7"}));

    ASSERT_EQ(subscribers.Add(&failingLast), 0);
    log.clear();
    EXPECT_EQ(notifier.Fire(false, size_t{2}), 21);
    EXPECT_EQ(log, (Log{"1:0,2", "2:0,2", "3:0,2"}));
}

TEST(EventAdaptor, EverySubscriberGetsTheSameArguments) {
    Subscribers subscribers;
    Log log;
    Subscriber first("1", 0, log), second("2", 5, log);
    ASSERT_EQ(subscribers.Add(&first), 0);
    ASSERT_EQ(subscribers.Add(&second), 0);

    // A by-value argument is copied for each subscriber, never moved away
    // before the later ones see it.
    const std::string text = "a name long enough to live on the heap";
    qv::Event<qv::MemberFunction_1_args<IEvents, int, std::string, &IEvents::OnName>> named(subscribers);
    EXPECT_EQ(named(std::string(text)), 5);
    EXPECT_EQ(log, (Log{"1:" + text, "2:" + text}));

    // A reference argument reaches every subscriber as the same object.
    qv::Event<qv::MemberFunction_1_args<IEvents, int, const std::vector<int>&, &IEvents::OnList>> listed(subscribers);
    const std::vector<int> values{1, 2, 3};
    EXPECT_EQ(listed(values), 5);
    EXPECT_EQ(first.lists, std::vector<const std::vector<int>*>{&values});
    EXPECT_EQ(second.lists, first.lists);

    log.clear();
    qv::Event<qv::MemberFunction_0_args<IEvents, int, &IEvents::OnPing>> ping(subscribers);
    EXPECT_EQ(ping(), 5);
    ASSERT_EQ(subscribers.Remove(&second), 0);
    EXPECT_EQ(ping(), 0);
    EXPECT_EQ(log, (Log{"1:ping", "2:ping", "1:ping"}));
}
