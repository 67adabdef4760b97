#pragma once
// Typed events: call one interface operation on every subscriber of a
// SynchronyzedObjectContainer.
//
// A binder names the interface, the result type, the argument types and the
// operation; Event<Binder> is bound to a container of that interface's
// pointers and fires the operation on each of them. Example:
//
//   struct IConditionEvent {
//       virtual int32_t OnStateChanged(bool state, size_t conditionId) = 0;
//   };
//   qv::SynchronyzedObjectContainer<IConditionEvent*> subscribers;
//   qv::Event<qv::MemberFunction_2_args<IConditionEvent, int32_t, bool, size_t,
//                                       &IConditionEvent::OnStateChanged>>
//       notifier{subscribers};
//   int32_t status = notifier(true, 3);  // OnStateChanged(true, 3) on each subscriber
//
// Firing holds the container's read lock for the whole walk and calls the
// subscribers in subscription order. Every subscriber is called whatever the
// others return; the result is the last subscriber's (R{}, i.e. 0, when there
// are none). The same arguments are passed to each subscriber unchanged.
// Thread rule: fire from any thread; see SynchronyzedObjectContainer for what
// a subscriber may do to the container from inside the call.
#include <type_traits>
#include <utility>

#include "plugin/subscriber_container.h"

namespace qv {

template <class I, class R, R (I::*Op)()>
struct MemberFunction_0_args {
    using Interface = I;
    using Result = R;
    static R Call(I* target) { return (target->*Op)(); }
};

template <class I, class R, class A1, R (I::*Op)(A1)>
struct MemberFunction_1_args {
    using Interface = I;
    using Result = R;
    static R Call(I* target, A1 a1) { return (target->*Op)(std::forward<A1>(a1)); }
};

template <class I, class R, class A1, class A2, R (I::*Op)(A1, A2)>
struct MemberFunction_2_args {
    using Interface = I;
    using Result = R;
    static R Call(I* target, A1 a1, A2 a2) { return (target->*Op)(std::forward<A1>(a1), std::forward<A2>(a2)); }
};

template <class Binder>
class Event : public Binder {
public:
    using Interface = typename Binder::Interface;
    using Result = typename Binder::Result;
    using Container = SynchronyzedObjectContainer<Interface*>;

    // The container must outlive the event.
    explicit Event(Container& subscribers) : subscribers_(subscribers) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Arguments are handed to each subscriber as lvalues, so none is moved
    // from before the last subscriber has seen it.
    template <class... Args>
    Result Fire(Args&&... args) {
        if constexpr (std::is_void_v<Result>) {
            subscribers_.ForEach([&](Interface* subscriber) { Binder::Call(subscriber, args...); });
        } else {
            Result last{};
            subscribers_.ForEach([&](Interface* subscriber) { last = Binder::Call(subscriber, args...); });
            return last;
        }
    }

    template <class... Args>
    Result operator()(Args&&... args) {
        return Fire(std::forward<Args>(args)...);
    }

    Container& subscribers() noexcept { return subscribers_; }

private:
    Container& subscribers_;
};

}  // namespace qv
