#include "plugin/event_adaptor.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

struct IStateEvent {
    virtual ~IStateEvent() = default;
    virtual int OnStateChanged(bool state, size_t id) = 0;
};

struct INamedEvent {
    virtual ~INamedEvent() = default;
    virtual int OnName(std::string name) = 0;
    virtual int OnList(const std::vector<int>& values) = 0;
    virtual int OnPing() = 0;
};

struct Call {
    int subscriber;
    bool state;
    size_t id;
    bool operator==(const Call&) const = default;
};

class StateSubscriber : public IStateEvent {
public:
    StateSubscriber(int name, int status, std::vector<Call>& calls) : name_(name), status_(status), calls_(calls) {}
    int OnStateChanged(bool state, size_t id) override {
        calls_.push_back({name_, state, id});
        return status_;
    }

private:
    int name_;
    int status_;
    std::vector<Call>& calls_;
};

class NamedSubscriber : public INamedEvent {
public:
    explicit NamedSubscriber(int status) : status_(status) {}
    int OnName(std::string name) override {
        names.push_back(std::move(name));
        return status_;
    }
    int OnList(const std::vector<int>& values) override {
        lists.push_back(&values);
        return status_;
    }
    int OnPing() override {
        ++pings;
        return status_;
    }

    std::vector<std::string> names;
    std::vector<const std::vector<int>*> lists;
    int pings = 0;

private:
    int status_;
};

using StateNotifier =
    qv::Event<qv::MemberFunction_2_args<IStateEvent, int, bool, size_t, &IStateEvent::OnStateChanged>>;

}  // namespace

TEST(EventAdaptor, WithoutSubscribersNobodyIsCalledAndTheResultIsZero) {
    qv::SynchronyzedObjectContainer<IStateEvent*> subscribers;
    StateNotifier notifier(subscribers);
    EXPECT_EQ(notifier(true, 4), 0);
}

TEST(EventAdaptor, CallsEverySubscriberInOrderAndReturnsTheLastStatus) {
    qv::SynchronyzedObjectContainer<IStateEvent*> subscribers;
    StateNotifier notifier(subscribers);
    std::vector<Call> calls;
    StateSubscriber failing(1, 1627, calls), succeeding(2, 0, calls), failingLast(3, 21, calls);

    ASSERT_EQ(subscribers.Add(&failing), 0);
    ASSERT_EQ(subscribers.Add(&succeeding), 0);
    EXPECT_EQ(notifier(true, 7), 0) << "an earlier failure is overridden by the last subscriber";
    EXPECT_EQ(calls, (std::vector<Call>{{1, true, 7}, {2, true, 7}}));

    ASSERT_EQ(subscribers.Add(&failingLast), 0);
    calls.clear();
    EXPECT_EQ(notifier.Fire(false, 2), 21);
    EXPECT_EQ(calls, (std::vector<Call>{{1, false, 2}, {2, false, 2}, {3, false, 2}}));

    ASSERT_EQ(subscribers.Remove(&succeeding), 0);
    ASSERT_EQ(subscribers.Add(&succeeding), 0);
    calls.clear();
    EXPECT_EQ(notifier(true, 0), 0);
    EXPECT_EQ(calls, (std::vector<Call>{{1, true, 0}, {3, true, 0}, {2, true, 0}}));
}

TEST(EventAdaptor, EverySubscriberGetsTheSameArguments) {
    qv::SynchronyzedObjectContainer<INamedEvent*> subscribers;
    NamedSubscriber first(0), second(5);
    ASSERT_EQ(subscribers.Add(&first), 0);
    ASSERT_EQ(subscribers.Add(&second), 0);

    // A by-value argument is copied for each subscriber, never moved away
    // before the later ones see it.
    qv::Event<qv::MemberFunction_1_args<INamedEvent, int, std::string, &INamedEvent::OnName>> named(subscribers);
    EXPECT_EQ(named(std::string("a name long enough to live on the heap")), 5);
    EXPECT_EQ(first.names, std::vector<std::string>{"a name long enough to live on the heap"});
    EXPECT_EQ(second.names, first.names);

    // A reference argument reaches every subscriber as the same object.
    qv::Event<qv::MemberFunction_1_args<INamedEvent, int, const std::vector<int>&, &INamedEvent::OnList>> listed(
        subscribers);
    const std::vector<int> values{1, 2, 3};
    EXPECT_EQ(listed(values), 5);
    ASSERT_EQ(first.lists.size(), 1u);
    ASSERT_EQ(second.lists.size(), 1u);
    EXPECT_EQ(first.lists[0], &values);
    EXPECT_EQ(second.lists[0], &values);

    qv::Event<qv::MemberFunction_0_args<INamedEvent, int, &INamedEvent::OnPing>> ping(subscribers);
    EXPECT_EQ(ping(), 5);
    ASSERT_EQ(subscribers.Remove(&second), 0);
    EXPECT_EQ(ping(), 0);
    EXPECT_EQ(first.pings, 2);
    EXPECT_EQ(second.pings, 1);
}
