#pragma once
// What a condition saw when it judged its source, for a person asking why a
// rule is or is not true (cr-host's "explain"). The module's own optional
// interface, answered through ICondition::QueryInterface: the values are
// gathered only when asked, so a host that never asks pays nothing.
#include <json/value.h>

#include "qv/guid.h"

namespace Product::Integration::ConditionManager {

class IConditionDiagnostics {
public:
    static constexpr GUID iid = qv::MakeGuid(0x2D7C4E19, 0xA05B, 0x4F3E, 0x8C62, 0x91B3D0E7A54F);

    // A JSON object with what the condition compared and what matched; its
    // members depend on the type. Null when the type has nothing to show
    // (the constants, the combinators, whose children show theirs). Any
    // thread; it may read the condition's source afresh.
    [[nodiscard]] virtual Json::Value Observed() = 0;

protected:
    ~IConditionDiagnostics() = default;
};

}  // namespace Product::Integration::ConditionManager
