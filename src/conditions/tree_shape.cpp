#include "conditions/tree_shape.h"

#include <string_view>
#include <vector>

#include "plugin/log.h"

namespace Product::Integration::ConditionManager {
namespace {

// What a JSON value is within a condition tree: a condition object, its
// "data", the "conditions" array of a combinator, or anything else.
enum class Role { kCondition, kData, kConditionList, kOther };

Role ChildRole(Role parent, const Json::Value::const_iterator& child, bool inArray) {
    if (inArray) return parent == Role::kConditionList ? Role::kCondition : Role::kOther;
    const char* end = nullptr;
    const char* begin = child.memberName(&end);
    const std::string_view name =
        begin ? std::string_view(begin, static_cast<size_t>(end - begin)) : std::string_view();
    if (parent == Role::kCondition && name == "data") return Role::kData;
    if (parent == Role::kData && name == "condition") return Role::kCondition;
    if (parent == Role::kData && name == "conditions") return Role::kConditionList;
    return Role::kOther;
}

}  // namespace

bool WithinShapeLimits(const Json::Value& root, const TreeShapeLimits& limits, const wchar_t* logFunction) {
    struct Frame {
        const Json::Value* value;
        Json::Value::const_iterator next;
        Role role;
        size_t conditionDepth;
    };
    std::vector<Frame> open;
    size_t conditions = 0;
    auto enter = [&](const Json::Value& value, Role role, size_t conditionDepth) {
        if (role == Role::kCondition) {
            if (++conditionDepth > limits.maxConditionDepth) {
                logging::Log(logging::kError, logFunction, L"Condition tree nested deeper than %d levels",
                             static_cast<int>(limits.maxConditionDepth));
                return false;
            }
            if (++conditions > limits.maxConditions) {
                logging::Log(logging::kError, logFunction, L"Condition tree has more than %d conditions",
                             static_cast<int>(limits.maxConditions));
                return false;
            }
        }
        if (!value.isArray() && !value.isObject()) return true;
        if (open.size() >= limits.maxJsonDepth) {
            logging::Log(logging::kError, logFunction, L"Condition JSON nested deeper than %d levels",
                         static_cast<int>(limits.maxJsonDepth));
            return false;
        }
        open.push_back(Frame{&value, value.begin(), role, conditionDepth});
        return true;
    };
    if (!enter(root, Role::kCondition, 0)) return false;
    while (!open.empty()) {
        Frame& top = open.back();
        if (top.next == top.value->end()) {
            open.pop_back();
            continue;
        }
        const Json::Value& child = *top.next;
        const Role role = ChildRole(top.role, top.next, top.value->isArray());
        const size_t conditionDepth = top.conditionDepth;
        ++top.next;
        if (!enter(child, role, conditionDepth)) return false;
    }
    return true;
}

}  // namespace Product::Integration::ConditionManager
