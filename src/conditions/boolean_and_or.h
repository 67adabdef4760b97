#pragma once
// "boolean.AND" and "boolean.OR": a threshold over the number of true
// children. "data"."conditions" is an array of at least one condition object;
// child i reports the identifier i.
//
// Child notifications are coalesced: each one only bumps a generation counter
// and posts a recomputation to the aggregate's own queue ("CondAggregate");
// a posted recomputation that finds a newer one pending does nothing, so a
// burst of child changes gives one recomputation and at most one notification
// of the parent, which only happens when the result flips.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "conditions/condition_base.h"
#include "conditions/condition_queue.h"
#include "conditions/manager_interface.h"
#include "os/thread_annotations.h"

namespace Product::Integration::ConditionManager {

// Owns the children of a combinator and its event queue.
class ConditionAggregate : public ConditionBaseWithDepends<ConditionBase, IManager, EvQueueWithName>,
                           public IConditionEvent {
public:
    static constexpr const wchar_t* kQueueName = L"CondAggregate";

    // Visits this condition, then each child's tree in order.
    [[nodiscard]] int32_t Accept(IConditionVisitor& visitor) override;

protected:
    // Builds the children from "data"."conditions" through `manager` and
    // subscribes to each. kInvalidParameter when the member is absent, not an array or
    // empty; a child's error when it cannot be built (children built so far
    // are destroyed).
    [[nodiscard]] int32_t CreateChildren(const Json::Value& json, IManager* manager);
    // Unsubscribes from and destroys every child.
    void DestroyChildren();
    void UnsubscribeFromChildren();
    ConditionQueue& queue() noexcept { return Slot<EvQueueWithName>().queue(); }

    std::vector<ConditionPtr> children_;
};

// Thread rules: OnStateChanged may come from any thread and touches only the
// generation counter and the queue. Recomputation runs on the queue's thread.
// The recursive critical section serialises GetState, the initial count in
// Init and UpdateState, including the notification of the parent, which thus
// runs with this aggregate's critical section held.
class ConditionBooleanAndOr : public ConditionAggregate {
public:
    // `requireAll` 1: all children must be true (AND); 0: one suffices (OR).
    explicit ConditionBooleanAndOr(int requireAll) : requireAll_(requireAll) {}
    ~ConditionBooleanAndOr() override;

    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Unsubscribes from the children, closes the queue (waiting for a
    // recomputation in progress) and destroys the children. Idempotent.
    void Uninit() override;
    // With `recompute` asks every child for a fresh value; the first child
    // error is returned and leaves the cached values untouched.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    // Posts a recomputation; returns 0 at once.
    [[nodiscard]] int32_t OnStateChanged(bool state, size_t conditionId) override;

private:
    // On the queue's thread: recomputes unless a newer update is pending, and
    // notifies the parent when the result flipped.
    void UpdateState(uint64_t expectedGeneration);

    os::RecursiveMutex lock_;
    size_t trueCount_ CR_GUARDED_BY(lock_) = 0;
    size_t threshold_ CR_GUARDED_BY(lock_) = 0;
    bool state_ CR_GUARDED_BY(lock_) = false;
    const int requireAll_;
    std::atomic<uint64_t> generation_{0};
};

class ConditionBooleanAnd final : public ConditionBooleanAndOr {
public:
    static constexpr const wchar_t* kType = L"boolean.AND";
    ConditionBooleanAnd() : ConditionBooleanAndOr(1) {}
};

class ConditionBooleanOr final : public ConditionBooleanAndOr {
public:
    static constexpr const wchar_t* kType = L"boolean.OR";
    ConditionBooleanOr() : ConditionBooleanAndOr(0) {}
};

}  // namespace Product::Integration::ConditionManager
