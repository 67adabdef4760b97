#pragma once
// The condition manager as its users see it: builds a live condition tree
// from its JSON form.
//
// Condition-tree JSON: every condition is an object with a string "type" (one
// keyword of the manager's table, exact and case-sensitive) and, for types
// that take parameters, a "data" object (for the combinators, the children).
#include <cstddef>

#include <json/value.h>

#include "conditions/condition.h"
#include "conditions/dependencies.h"
#include "plugin/module_names.h"
#include "plugin/serv_plugin.h"

namespace Product::Integration::ConditionManager {

class IManager {
public:
    // Identifier for lookup through the host and for injection into conditions.
    static constexpr GUID iid = qv::MakeGuid(0x5B2F0C8E, 0x7D41, 0x4C96, 0xA3E5, 0x12D9B7F4608C);

    // Builds one condition with its whole subtree. On success sets *error to 0
    // and returns the condition, initialised and owned by the caller; on
    // failure returns null with the reason in *error. `id` is what the
    // condition reports in its notifications. Any thread; re-entrant.
    [[nodiscard]] virtual ConditionPtr CreateCondition(const Json::Value& json, int32_t* error, size_t id) = 0;
    virtual ~IManager() = default;
};

// What the manager can tell people and tools: the condition types it builds
// and the conditions alive. Answered by the manager's QueryInterface; a host
// that never asks pays nothing.
class IManagerDiagnostics {
public:
    static constexpr GUID iid = qv::MakeGuid(0x8E41D2A7, 0x3F05, 0x4B9C, 0x9D16, 0x7A0C35E2B4F1);

    // One object per type, in the catalog's order:
    //   {"type": keyword, "meaning": text,
    //    "data": [{"name", "json": "string" | "boolean" | "array" | "object",
    //              "optional": bool, "meaning"}],
    //    "example": a whole condition object of that type}
    // Any thread.
    [[nodiscard]] virtual Json::Value Catalog() const = 0;
    // The conditions of this module alive now, by type keyword:
    // {"network.IP": 1000, ...} (types with none left out). Any thread.
    [[nodiscard]] virtual Json::Value LiveConditions() const = 0;

protected:
    ~IManagerDiagnostics() = default;
};

// The combinators get the manager itself, to build their children.
template <>
struct DependencyTraits<IManager> {
    static constexpr DependencySource source = DependencySource::kManager;
    static constexpr const wchar_t* name = qv::names::kConditionManager;
    static const GUID& Iid() { return IManager::iid; }
};

}  // namespace Product::Integration::ConditionManager

template <>
struct qv::InterfaceName<Product::Integration::ConditionManager::IManager> {
    static constexpr const wchar_t* value = L"struct Product::Integration::ConditionManager::IManager";
};
template <>
struct qv::InterfaceName<Product::Integration::ConditionManager::IManagerDiagnostics> {
    static constexpr const wchar_t* value = L"struct Product::Integration::ConditionManager::IManagerDiagnostics";
};
