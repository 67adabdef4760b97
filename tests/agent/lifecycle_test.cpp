#include "agent_fixture.h"

#include "os/module.h"
#include "plugin/module_exports.h"
#include "plugin/module_names.h"

namespace agent_test {
namespace {

struct Names final : INameCollector {
    void Add(const wchar_t* name) override { names.emplace_back(name); }
    std::vector<std::wstring> names;
};

using LifecycleTest = AgentTest;

TEST_F(LifecycleTest, StartRegistersAndSubscribesStopUndoesBoth) {
    ASSERT_EQ(agent->Init(host.main()), 0);
    EXPECT_EQ(host.components().References(kRunnerName), 1);
    EXPECT_EQ(host.components().References(kAgentManagerName), 1);

    ASSERT_EQ(agent->Start(), 0);
    EXPECT_TRUE(agent->registered());
    ASSERT_EQ(host.agents().Agents().size(), 1u);
    EXPECT_EQ(host.agents().FindAgent(L"Product.ConditionalRunner.Agent"), host.agents().Agents()[0]);
    EXPECT_EQ(runner.listener, static_cast<IConditionalRunner::IEvents*>(agent.get()));
    EXPECT_EQ(runner.subscribeFlags, std::vector<int32_t>{0});
    EXPECT_TRUE(log.Contains(32, L"ConditionalRunnerAgent::Start", L"-> ConditionalRunnerAgent::Start()"));

    EXPECT_EQ(agent->Stop(), 0);
    EXPECT_FALSE(agent->registered());
    EXPECT_TRUE(host.agents().Agents().empty());
    EXPECT_EQ(runner.listener, nullptr);
    agent->Stop();  // a second Stop changes nothing
    EXPECT_EQ(runner.unsubscribes, 1);

    EXPECT_EQ(agent->Uninit(), 0);
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

TEST_F(LifecycleTest, UninitWithoutStopStillLeavesTheRunnerAndTheManager) {
    InitAndStart();
    EXPECT_EQ(agent->Uninit(), 0);
    EXPECT_EQ(runner.listener, nullptr);
    EXPECT_TRUE(host.agents().Agents().empty());
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

TEST_F(LifecycleTest, MissingDependenciesAndARefusingManagerFailCleanly) {
    EXPECT_EQ(agent->Start(), 1300);  // before Init

    host.components().Unregister(kRunnerName);
    EXPECT_EQ(agent->Init(host.main()), 5002);
    EXPECT_EQ(host.components().TotalReferences(), 0);
    EXPECT_TRUE(log.Contains(8, L"ServPlugin<struct Product::Integration::ConditionalRunner::IConditionalRunner>::GetPlugin",
                             L"Error 1168 getting plugin \"Product.ConditionalRunner\""));

    host.components().Register(kRunnerName, &runner);
    ASSERT_EQ(agent->Init(host.main()), 0);
    host.agents().SetRefuseRegistration(true);
    EXPECT_EQ(agent->Start(), 1627);
    EXPECT_TRUE(log.Contains(4, L"ConditionalRunnerAgent::Start", L"Cannot start plugin. [error = 1627]"));
    EXPECT_FALSE(agent->registered());
    EXPECT_EQ(runner.listener, nullptr);
}

TEST_F(LifecycleTest, ReadinessFollowsTheRunnersConnection) {
    EXPECT_FALSE(agent->IsReady());
    ASSERT_EQ(agent->Init(host.main()), 0);
    EXPECT_TRUE(agent->IsReady());
    // The probe starts from the default settings.
    EXPECT_EQ(runner.received().settings, IConditionalRunner::Settings{});
    for (int32_t status : {1229, 2250}) {
        runner.SetStatus("GetSettings", status);
        EXPECT_FALSE(agent->IsReady()) << status;
    }
    for (int32_t status : {5, 1627, 21}) {
        runner.SetStatus("GetSettings", status);
        EXPECT_TRUE(agent->IsReady()) << status;
    }
}

TEST_F(LifecycleTest, NamesItselfAndTheModule) {
    Names names;
    agent->GetNames(&names);
    EXPECT_EQ(names.names, std::vector<std::wstring>{L"Product.ConditionalRunner"});
    EXPECT_EQ(agentName(), L"Product.ConditionalRunner.Agent");
    std::wstring into;
    EXPECT_EQ(&agent->GetNameInto(into), &into);
    EXPECT_EQ(into, agentName());
    EXPECT_EQ(agent->Configure(), 0);
}

TEST_F(LifecycleTest, TheModuleExportsTheAgentAsASingleton) {
    // The built module, loaded from beside the test program as the host loads it.
    testing_support::LoadedModule module;
    ASSERT_TRUE(module.Loaded()) << module.loadError();
    const QvCreateObjectFn create = module.create;
    const QvDestroyObjectFn destroy = module.destroy;
    const std::wstring name = qv::names::AgentName();
    ASSERT_EQ(name, L"Product.ConditionalRunner.Agent");
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(create(name.c_str(), &EnterpriseIntegration::IAgent::iid, &first), 0);
    ASSERT_EQ(create(name.c_str(), &IServPlugin::iid, &second), 0);
    auto* exported = static_cast<EnterpriseIntegration::IAgent*>(first);
    EXPECT_EQ(static_cast<IServPlugin*>(exported), static_cast<IServPlugin*>(second));

    void* none = reinterpret_cast<void*>(1);
    EXPECT_EQ(create(L"product.conditionalrunner.agent", &EnterpriseIntegration::IAgent::iid, &none), 1168);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(create(name.c_str(), &IConditionalRunner::iid, &none), 1168);

    // The exported object works through the host like any other instance.
    ASSERT_EQ(exported->Init(host.main()), 0);
    ASSERT_EQ(exported->Start(), 0);
    EXPECT_NE(runner.listener, nullptr);  // subscribed on Start
    host::MethodCall call(name, L"IsEnabled");
    runner.enabledOut = true;
    exported->RunPolicyMethod(&call);
    EXPECT_EQ(call.GetResult(), 0);
    EXPECT_EQ((*call.response())["enabled"], Json::Value(true));
    exported->Stop();
    exported->Uninit();

    destroy(name.c_str(), second);
    // Still alive after one give-back: a new request returns the same object.
    void* third = nullptr;
    EXPECT_EQ(create(name.c_str(), &EnterpriseIntegration::IAgent::iid, &third), 0);
    EXPECT_EQ(third, first);
    destroy(name.c_str(), third);
    destroy(name.c_str(), first);
}

}  // namespace
}  // namespace agent_test
