#pragma once
// Where a condition tree that cannot be built fails, as a JSON path from the
// tree's root object: "data.conditions[2].data.address".
//
// The path leads to the deepest condition that cannot be built on its own:
// a combinator whose children all build fails itself, otherwise the first
// child that fails is followed. Within that condition the path names the
// member at fault when it can be told: "type" for a missing or unknown type,
// a member of "data" that is missing or of the wrong JSON type by the
// module's catalog, or the type's only member; otherwise it ends at "data".
// An empty path is the root object itself (not an object at all).
//
// Thread rule: the caller's thread; every condition built to find the place
// is destroyed before Locate returns.
#include <string>

#include <json/value.h>

#include "conditions/manager_interface.h"

namespace crhost {

class BuildFailureLocator {
public:
    // `catalog` may be null (a module without one): members are then not told.
    BuildFailureLocator(Product::Integration::ConditionManager::IManager& manager,
                        const Product::Integration::ConditionManager::IManagerDiagnostics* catalog);

    // The path of the failure in `condition`, which the manager refused.
    std::string Locate(const Json::Value& condition) const;

private:
    bool Builds(const Json::Value& condition) const;
    // The failing member of a condition none of whose children fails.
    std::string FaultyMember(const Json::Value& condition, const std::string& at) const;

    Product::Integration::ConditionManager::IManager& manager_;
    Json::Value catalog_;  // the catalog's rows, or null
};

}  // namespace crhost
