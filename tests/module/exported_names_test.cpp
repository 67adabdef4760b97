// The module's table of exported names as the host reaches it: the built
// module loaded by path, each name giving the object the host expects. How a
// singleton is counted is the registry's own test; this one checks that the
// module declares each of its names with the right kind and interfaces.
#include <gtest/gtest.h>

#include <json/value.h>

#include "conditions/manager_interface.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "model/conditional_runner.h"
#include "plugin/module_names.h"
#include "qv/integration.h"
#include "qv/serv_plugin.h"
#include "qv/status.h"
#include "support/module_under_test.h"

namespace {

using Product::Integration::ConditionManager::ConditionPtr;
using Product::Integration::ConditionManager::IManager;
using testing_support::LoadedModule;

// Two requests under `name` for two of its interfaces give one object, which
// outlives the first give-back.
void ExpectSingleton(LoadedModule& module, const std::wstring& name, const GUID& interface) {
    SCOPED_TRACE(testing::Message() << "name length " << name.size());
    void* plugin = nullptr;
    void* other = nullptr;
    ASSERT_EQ(module.create(name.c_str(), &IServPlugin::iid, &plugin), 0);
    ASSERT_EQ(module.create(name.c_str(), &interface, &other), 0);
    EXPECT_EQ(static_cast<IServPlugin*>(plugin)->QueryInterface(interface), other);
    module.destroy(name.c_str(), plugin);
    void* again = nullptr;
    ASSERT_EQ(module.create(name.c_str(), &interface, &again), 0);
    EXPECT_EQ(again, other);
    module.destroy(name.c_str(), again);
    module.destroy(name.c_str(), other);
}

TEST(ModuleNames, TheAgentConditionManagerAndNetworkProviderAreExportedAsSingletons) {
    LoadedModule module;
    ASSERT_TRUE(module.Loaded());
    EXPECT_EQ(qv::names::AgentName(), L"Product.ConditionalRunner.Agent");
    ExpectSingleton(module, qv::names::AgentName(), EnterpriseIntegration::IAgent::iid);
    ExpectSingleton(module, qv::names::kConditionManager, IManager::iid);
    ExpectSingleton(module, qv::names::kNetworkProvider, Product::Integration::INetworkProvider::iid);

    // Names are exact, and an interface an object lacks is refused.
    void* none = reinterpret_cast<void*>(1);
    EXPECT_EQ(module.create(L"product.conditionalrunner.agent", &IServPlugin::iid, &none), qv::status::kNotFound);
    EXPECT_EQ(none, nullptr);
    const std::wstring agent = qv::names::AgentName();
    EXPECT_EQ(module.create(agent.c_str(), &Product::Integration::ConditionalRunner::IConditionalRunner::iid, &none),
              qv::status::kNotFound);
    EXPECT_EQ(none, nullptr);
}

TEST(ModuleNames, TheExportedConditionManagerBuildsTreesForItsHost) {
    LoadedModule module;
    ASSERT_TRUE(module.Loaded());
    const std::wstring name = qv::names::kConditionManager;
    void* pluginPart = nullptr;
    ASSERT_EQ(module.create(name.c_str(), &IServPlugin::iid, &pluginPart), 0);
    auto* plugin = static_cast<IServPlugin*>(pluginPart);
    auto* manager = static_cast<IManager*>(plugin->QueryInterface(IManager::iid));
    ASSERT_NE(manager, nullptr);

    host::ReferenceHost host;
    host::NetworkProviderStandIn provider;
    host.components().Register(host::NetworkProviderStandIn::kName, &provider);
    ASSERT_EQ(plugin->Init(host.main()), 0);
    Json::Value json(Json::objectValue);
    json["type"] = "boolean.TRUE";
    int32_t error = -1;
    ConditionPtr condition = manager->CreateCondition(json, &error, 0);
    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(error, 0);
    bool state = false;
    EXPECT_EQ(condition->GetState(&state, true), 0);
    EXPECT_TRUE(state);
    condition.reset();
    EXPECT_EQ(plugin->Uninit(), 0);
    EXPECT_EQ(host.components().TotalReferences(), 0);
    module.destroy(name.c_str(), pluginPart);
}

// The exported provider is the real one: started by its host, it holds the
// machine's addresses and host name.
TEST(ModuleNames, TheExportedNetworkProviderReadsTheMachinesNetwork) {
    LoadedModule module;
    ASSERT_TRUE(module.Loaded());
    const std::wstring name = qv::names::kNetworkProvider;
    void* pluginPart = nullptr;
    ASSERT_EQ(module.create(name.c_str(), &IServPlugin::iid, &pluginPart), 0);
    auto* plugin = static_cast<IServPlugin*>(pluginPart);
    auto* provider = static_cast<Product::Integration::INetworkProvider*>(
        plugin->QueryInterface(Product::Integration::INetworkProvider::iid));
    ASSERT_NE(provider, nullptr);
    host::ReferenceHost host;
    ASSERT_EQ(plugin->Init(host.main()), 0);
    ASSERT_EQ(plugin->Start(), 0);
    ASSERT_EQ(provider->Start(), 0);  // a condition's start on top of the host's
    Product::Integration::NetworkState state;
    EXPECT_EQ(provider->GetState(state), 0);
    EXPECT_TRUE(state.HasUnicastAddress());
    EXPECT_FALSE(state.hostName.empty());
    EXPECT_EQ(provider->Stop(), 0);
    EXPECT_EQ(plugin->Stop(), 0);
    EXPECT_EQ(plugin->Uninit(), 0);
    module.destroy(name.c_str(), pluginPart);
}

}  // namespace
