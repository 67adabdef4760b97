// The module's exported objects. All declarations live in this one file so
// that they register in a fixed order while static objects are constructed:
//   "Product.ConditionalRunner" + ".Agent"        the agent (singleton)
//   "Product.ConditionalRunner"                   the runner (one per request)
//   "Product.ConditionalRunner.ConditionManager"  the condition manager (singleton)
//   "Product.ConditionalRunner.NetworkProvider"   the network provider (singleton)
// Each class adds its declaration here, in that order, as it is written.
#include "agent/conditional_runner_agent.h"
#include "conditions/manager.h"
#include "network/network_provider.h"
#include "plugin/exported_objects.h"
#include "plugin/module_names.h"
#include "runner/conditional_runner_al.h"

namespace qv {
namespace {
ExportedSingletonDeclaration<Product::Integration::ConditionalRunner::ConditionalRunnerAgent> agent{names::AgentName()};
ExportedObjectDeclaration<Product::Integration::ConditionalRunner::ConditionalRunnerAL> runner{names::kModule};
ExportedSingletonDeclaration<Product::Integration::ConditionManager::Manager> conditionManager{
    names::kConditionManager};
ExportedSingletonDeclaration<Product::Integration::NetworkProvider> networkProvider{names::kNetworkProvider};
}  // namespace
}  // namespace qv
