#pragma once
// The catalog of condition types: one row per type keyword with what it
// means, the members of its "data" object and an example. It is the one list
// of types: the manager fills its factory from it (each row names how to
// build its type), and the manager's IManagerDiagnostics answers it, so what a
// person reads is what the module accepts.
//
// Thread rules: the table is built once, on first use, and only read after.
#include <vector>

#include "conditions/manager.h"

namespace Product::Integration::ConditionManager {

enum class MemberPresence { kRequired, kOptional };

// One member of a type's "data" object.
struct DataMember {
    const char* name;
    const char* json;  // "string", "boolean", "array" or "object"
    MemberPresence presence;
    const char* meaning;
};

struct ConditionType {
    const wchar_t* keyword;
    const char* meaning;
    std::vector<DataMember> data;
    const char* example;               // a whole condition object of this type, as JSON text
    Manager::FactoryEntry (*entry)();  // how the manager builds it
};

// Every type the module builds, in the order the catalog lists them.
const std::vector<ConditionType>& ConditionTypes();

// The table as IManagerDiagnostics answers it.
Json::Value CatalogJson();

}  // namespace Product::Integration::ConditionManager
