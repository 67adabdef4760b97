#pragma once
// "boolean.NOT": the negation of one child ("data"."condition", reported as
// identifier 0). It follows its child synchronously: every child notification
// is forwarded at once, on the child's thread, without comparing with the
// previous value (the child notifies only on change).
#include <atomic>
#include <cstddef>

#include "conditions/condition_base.h"
#include "conditions/manager_interface.h"

namespace Product::Integration::ConditionManager {

// Thread rules: no lock of its own; the cached state is atomic. Its Uninit is
// the base's; the destructor unsubscribes from the child and destroys it.
class ConditionBooleanNot final : public ConditionBaseWithDepends<ConditionBase, IManager>, public IConditionEvent {
public:
    static constexpr const wchar_t* kType = L"boolean.NOT";

    ~ConditionBooleanNot() override;

    [[nodiscard]] int32_t Init(const InitData& data) override;
    // With `recompute` asks the child; its status is returned, and the cached
    // value only changes when the child answered.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    // Visits this condition, then the child's tree.
    [[nodiscard]] int32_t Accept(IConditionVisitor& visitor) override;
    // Stores the negation and notifies at once; returns the notification's status.
    [[nodiscard]] int32_t OnStateChanged(bool state, size_t conditionId) override;

private:
    // Builds and subscribes to the child from "data"."condition". kInvalidParameter when it
    // is absent; the child's error; or the subscription's status.
    [[nodiscard]] int32_t CreateChild(const Json::Value& json, IManager* manager);
    void ReleaseChild();

    ConditionPtr child_;
    std::atomic<bool> state_{false};
};

}  // namespace Product::Integration::ConditionManager
