#pragma once
// The shape of a condition tree's JSON, checked before anything of it is
// copied or built, so that one request cannot exhaust the stack or the memory
// of the service process.
//
// Stateless: callable from any thread.
#include <cstddef>

#include <json/value.h>

namespace Product::Integration::ConditionManager {

struct TreeShapeLimits {
    size_t maxConditionDepth;  // conditions nested in conditions
    size_t maxConditions;      // conditions in the whole tree
    size_t maxJsonDepth;       // arrays and objects nested in each other
};

// Walks a whole tree's JSON once, without recursion and without copying, and
// logs under `logFunction` and returns false when it breaks one of `limits`. Conditions are
// counted where the combinators look for them ("data"."condition" and the
// elements of "data"."conditions"), also under types that have no children,
// so the count never falls short of what would be built. The walk keeps one
// frame per open array or object, so its memory is bounded by the JSON depth.
[[nodiscard]] bool WithinShapeLimits(const Json::Value& root, const TreeShapeLimits& limits,
                                     const wchar_t* logFunction);

}  // namespace Product::Integration::ConditionManager
