#include "explain.h"

#include <chrono>
#include <string_view>

#include "conditions/diagnostics.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace crhost {

namespace {

using Product::Integration::ConditionManager::ConditionPtr;
using Product::Integration::ConditionManager::ICondition;
using Product::Integration::ConditionManager::IConditionDiagnostics;
using Product::Integration::ConditionManager::IConditionVisitor;

constexpr std::chrono::milliseconds kSettleLimit{2000};

// Every condition of a tree, parent before children.
class Collector final : public IConditionVisitor {
public:
    void Visit(ICondition& condition) override { nodes.push_back(&condition); }
    std::vector<ICondition*> nodes;
};

// Member `name` of `object`, or null (also when `object` is no object).
const Json::Value* Member(const Json::Value& object, std::string_view name) {
    return object.isObject() ? object.find(name.data(), name.data() + name.size()) : nullptr;
}

// The condition objects of a tree's JSON in the order Accept visits the
// built conditions: each one, then its children ("data"."conditions" of the
// combinators, "data"."condition" of a negation).
void JsonNodes(const Json::Value& condition, std::vector<const Json::Value*>& nodes) {
    std::vector<const Json::Value*> pending{&condition};
    while (!pending.empty()) {
        const Json::Value* node = pending.back();
        pending.pop_back();
        nodes.push_back(node);
        const Json::Value* data = Member(*node, "data");
        if (!data) continue;
        if (const Json::Value* children = Member(*data, "conditions"); children && children->isArray()) {
            for (Json::ArrayIndex i = children->size(); i-- > 0;) pending.push_back(&(*children)[i]);
        } else if (const Json::Value* child = Member(*data, "condition"); child && child->isObject()) {
            pending.push_back(child);
        }
    }
}

// What the condition saw, when it says.
Json::Value ObservedBy(ICondition& condition) {
    auto* diagnostics = static_cast<IConditionDiagnostics*>(condition.QueryInterface(IConditionDiagnostics::iid));
    return diagnostics ? diagnostics->Observed() : Json::Value();
}

Json::Value StateOf(ICondition& condition, int32_t& status) {
    bool state = false;
    status = condition.GetState(&state, /*recompute=*/true);
    return status == 0 ? Json::Value(state) : Json::Value();
}

// The explanation of nodes[at] with its subtree, whose size (itself
// included) is sizes[at]. Recursion depth is the tree's depth, which the
// condition manager bounds.
Json::Value Describe(const std::vector<ICondition*>& nodes, const std::vector<size_t>& sizes,
                     const std::vector<const Json::Value*>& json, size_t at) {
    ICondition& condition = *nodes[at];
    Json::Value node(Json::objectValue);
    node["type"] = os::WideToUtf8Lossy(condition.GetType());
    int32_t status = 0;
    node["state"] = StateOf(condition, status);
    if (status != 0) node["error"] = status;
    // The data as given; a combinator's children are shown as its children.
    if (json.size() == nodes.size() && json[at]->isObject() && json[at]->isMember("data")) {
        const Json::Value& data = (*json[at])["data"];
        if (sizes[at] == 1) node["data"] = data;
    }
    if (Json::Value observed = ObservedBy(condition); !observed.isNull()) node["observed"] = std::move(observed);
    Json::Value& children = node["children"] = Json::Value(Json::arrayValue);
    for (size_t child = at + 1; child < at + sizes[at]; child += sizes[child])
        children.append(Describe(nodes, sizes, json, child));
    return node;
}

}  // namespace

void TreeExplainer::Settle() { static_cast<void>(queues_.WaitIdle(kSettleLimit)); }

int32_t TreeExplainer::Explain(const Json::Value& condition, Json::Value& tree) {
    int32_t error = 0;
    ConditionPtr root = manager_.CreateCondition(condition, &error, 0);
    if (!root) return error != 0 ? error : qv::status::kFunctionFailed;
    Settle();

    Collector all;
    static_cast<void>(root->Accept(all));
    // Each node's subtree size, from a walk of that node alone.
    std::vector<size_t> sizes;
    sizes.reserve(all.nodes.size());
    for (ICondition* node : all.nodes) {
        Collector subtree;
        static_cast<void>(node->Accept(subtree));
        sizes.push_back(subtree.nodes.empty() ? 1 : subtree.nodes.size());
    }
    std::vector<const Json::Value*> json;
    JsonNodes(condition, json);
    tree = Describe(all.nodes, sizes, json, 0);
    return 0;
}

std::vector<Json::Value> TreeExplainer::States(const std::vector<Json::Value>& conditions) {
    std::vector<ConditionPtr> roots;
    for (const Json::Value& condition : conditions) {
        int32_t error = 0;
        roots.push_back(manager_.CreateCondition(condition, &error, 0));
    }
    Settle();
    std::vector<Json::Value> states;
    for (ConditionPtr& root : roots) {
        int32_t status = 0;
        states.push_back(root ? StateOf(*root, status) : Json::Value());
    }
    return states;
}

}  // namespace crhost
