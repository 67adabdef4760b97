#pragma once
// "boolean.TRUE" and "boolean.FALSE": constants that never change and never
// notify. They take no "data".
#include "conditions/condition_base.h"

namespace Product::Integration::ConditionManager {

template <bool Value>
class ConditionBooleanConstant final : public ConditionBase {
public:
    static constexpr const wchar_t* kType = Value ? L"boolean.TRUE" : L"boolean.FALSE";

    // The constant, whatever `recompute` says; 0. Any thread.
    [[nodiscard]] int32_t GetState(bool* state, bool /*recompute*/) override {
        if (state) *state = Value;
        return 0;
    }
};

}  // namespace Product::Integration::ConditionManager
