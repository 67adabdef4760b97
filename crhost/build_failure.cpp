#include "build_failure.h"

namespace crhost {
namespace {

using Product::Integration::ConditionManager::ConditionPtr;

std::string Join(const std::string& at, const std::string& member) { return at.empty() ? member : at + "." + member; }

bool HasJsonType(const Json::Value& value, const std::string& json) {
    if (json == "string") return value.isString();
    if (json == "boolean") return value.isBool();
    if (json == "array") return value.isArray();
    if (json == "object") return value.isObject();
    return true;
}

}  // namespace

BuildFailureLocator::BuildFailureLocator(Product::Integration::ConditionManager::IManager& manager,
                                         const Product::Integration::ConditionManager::IManagerDiagnostics* catalog)
    : manager_(manager), catalog_(catalog ? catalog->Catalog() : Json::Value()) {}

bool BuildFailureLocator::Builds(const Json::Value& condition) const {
    int32_t error = 0;
    const ConditionPtr built = manager_.CreateCondition(condition, &error, 0);
    return built != nullptr;
}

std::string BuildFailureLocator::Locate(const Json::Value& root) const {
    // Walks down without recursion: the manager bounds a tree's depth, but a
    // refused tree may be deeper than that.
    const Json::Value* condition = &root;
    std::string at;
    for (;;) {
        if (!condition->isObject()) return at;
        const Json::Value& data = (*condition)["data"];
        const Json::Value* failing = nullptr;
        std::string step;
        if (data.isObject() && data["conditions"].isArray()) {
            const Json::Value& children = data["conditions"];
            for (Json::ArrayIndex i = 0; i < children.size() && !failing; ++i)
                if (!Builds(children[i])) {
                    failing = &children[i];
                    step = "data.conditions[" + std::to_string(i) + "]";
                }
        } else if (data.isObject() && data.isMember("condition") && !Builds(data["condition"])) {
            failing = &data["condition"];
            step = "data.condition";
        }
        if (!failing) return FaultyMember(*condition, at);
        condition = failing;
        at = Join(at, step);
    }
}

std::string BuildFailureLocator::FaultyMember(const Json::Value& condition, const std::string& at) const {
    const Json::Value& type = condition["type"];
    if (!type.isString()) return Join(at, "type");
    if (!catalog_.isArray()) return Join(at, "data");
    for (const Json::Value& row : catalog_) {
        if (row["type"] != type) continue;
        const Json::Value& members = row["data"];
        const Json::Value& data = condition["data"];
        if (members.empty()) return at;
        if (!data.isObject()) return Join(at, "data");
        for (const Json::Value& member : members) {
            const std::string name = member["name"].asString();
            if (!data.isMember(name)) {
                if (!member["optional"].asBool()) return Join(at, "data." + name);
            } else if (!HasJsonType(data[name], member["json"].asString())) {
                return Join(at, "data." + name);
            }
        }
        return members.size() == 1 ? Join(at, "data." + members[0]["name"].asString()) : Join(at, "data");
    }
    return Join(at, "type");  // not a type the module builds
}

}  // namespace crhost
