#pragma once
// Why a condition tree is or is not true: the tree is built anew through the
// module's condition manager from its JSON form, left to settle, and every
// node is asked for its own state.
//
// A node's answer is {"type": keyword, "state": true | false | null,
// "children": [nodes]}, with "error": status added (and "state" null) when
// the node cannot tell its state. The tree's shape is the one the conditions
// themselves report (ICondition::Accept), not read from the JSON.
//
// Thread rule: any host thread; the trees built here are the caller's alone
// and are destroyed before the call returns.
#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

#include "conditions/manager_interface.h"
#include "host/event_queue_service.h"

namespace crhost {

class TreeExplainer {
public:
    // `queues` are the host's event queues, on which combinators recompute.
    TreeExplainer(Product::Integration::ConditionManager::IManager& manager, host::EventQueueService& queues)
        : manager_(manager), queues_(queues) {}

    // Builds `condition`, lets it settle and writes its explanation to
    // `tree`. 0, or the condition manager's status when the tree cannot be
    // built (`tree` is then left as it is).
    [[nodiscard]] int32_t Explain(const Json::Value& condition, Json::Value& tree);

    // The state of each condition of `conditions`, built and settled
    // together: true or false, or null for one that cannot be built or
    // cannot tell its state.
    std::vector<Json::Value> States(const std::vector<Json::Value>& conditions);

private:
    // Waits until the host's queues hold no work that is due (a combinator's
    // recomputation), for a short while at most.
    void Settle();

    Product::Integration::ConditionManager::IManager& manager_;
    host::EventQueueService& queues_;
};

}  // namespace crhost
