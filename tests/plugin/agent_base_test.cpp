#include <gtest/gtest.h>

#include "host/agent_manager.h"
#include "host/component_manager.h"
#include "plugin/agent_base.h"
#include "plugin/serv_plugin.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

// A plug-in interface that the test agent fronts.
struct IFronted : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0xA1B2C3D4, 0x0001, 0x0002, 0x0003, 0x000000000004);
};

class Fronted final : public IFronted {
public:
    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, IFronted::iid) || qv::GuidEquals(requested, IQvBaseInterface::iid) ? this
                                                                                                            : nullptr;
    }
};

}  // namespace

template <>
struct qv::InterfaceName<IFronted> {
    static constexpr const wchar_t* value = L"struct IFronted";
};

namespace {

class TestAgent final : public EnterpriseIntegration::Agent<IFronted> {
public:
    TestAgent() : Agent(L"Test.Agent", L"Test.Fronted") {}
    int32_t Configure() override { return 0; }
    void RunPolicyMethod(IMethodCall*) override {}
    bool IsReady() override { return plugin().get() != nullptr; }
};

// Host pieces without the event queues: the agent needs only these two services.
struct MiniHost {
    host::ComponentManager components;
    host::ServMain main{components};
    host::AgentManager agents;
    Fronted fronted;
    MiniHost(bool withManager, bool withFronted) {
        if (withManager) components.Register(EnterpriseIntegration::IManager::kPluginName, &agents);
        if (withFronted) components.Register(L"Test.Fronted", &fronted);
    }
};

}  // namespace

// A lookup holds one reference, gives it back before a second lookup and on
// destruction; a plug-in without the interface is a failed lookup that keeps nothing.
TEST(ServPlugin, HoldsOneReferenceAndGivesItBackByName) {
    MiniHost host(true, true);
    {
        qv::ServPlugin<EnterpriseIntegration::IManager> plugin(EnterpriseIntegration::IManager::kPluginName);
        ASSERT_EQ(plugin.GetPlugin(&host.components), &host.agents);
        ASSERT_EQ(plugin.GetPlugin(&host.components), &host.agents);
        EXPECT_EQ(host.components.References(EnterpriseIntegration::IManager::kPluginName), 1);
        qv::ServPlugin<EnterpriseIntegration::IManager> wrong(L"Test.Fronted");
        EXPECT_EQ(wrong.GetPlugin(&host.components), nullptr);
        EXPECT_EQ(host.components.TotalReferences(), 1);
    }
    EXPECT_EQ(host.components.TotalReferences(), 0);
}

namespace {

// A component manager that answers success without handing out a plug-in,
// and counts the references it believes it gave.
class NullAnsweringManager final : public IComponentManager {
public:
    int references = 0;
    std::wstring lastReleased;
    int32_t GetPlugin(const wchar_t*, const GUID&, void** out) override {
        *out = nullptr;
        ++references;
        return qv::status::kSuccess;
    }
    void ReleasePlugin(const wchar_t* name) override {
        --references;
        lastReleased = name;
    }
    IEventQueueFactory* GetEventQueueFactory() override { return nullptr; }
};

}  // namespace

TEST(ServPlugin, SuccessWithANullPluginIsNoErrorButTheReferenceIsGivenBack) {
    testing_support::LogCapture capture;
    NullAnsweringManager manager;
    {
        qv::ServPlugin<EnterpriseIntegration::IManager> plugin(L"EndpointIntegration.Manager");
        EXPECT_EQ(plugin.GetPlugin(&manager), nullptr);
        EXPECT_TRUE(capture.Messages().empty());
        EXPECT_EQ(plugin.manager(), &manager);
        EXPECT_EQ(manager.references, 1);
        // Asking again gives the first reference back before taking another.
        EXPECT_EQ(plugin.GetPlugin(&manager), nullptr);
        EXPECT_EQ(manager.references, 1);
        plugin.Release();
        EXPECT_EQ(manager.references, 0);
        EXPECT_EQ(manager.lastReleased, L"EndpointIntegration.Manager");
        EXPECT_EQ(plugin.GetPlugin(&manager), nullptr);
    }
    EXPECT_EQ(manager.references, 0) << "the destructor gives the last reference back";
    EXPECT_TRUE(capture.Messages().empty());
}

TEST(AgentBase, InitNeedsTheAgentManagerAndTheFrontedPluginAndGivesBackWhatItTook) {
    for (auto [withManager, withFronted] : {std::pair{false, true}, std::pair{true, false}, std::pair{false, false}}) {
        MiniHost host(withManager, withFronted);
        TestAgent agent;
        EXPECT_EQ(agent.Init(&host.main), qv::status::kDependencyNotFound);
        EXPECT_EQ(host.components.TotalReferences(), 0);
        EXPECT_FALSE(agent.IsReady());
    }
    TestAgent agent;
    EXPECT_EQ(agent.Init(nullptr), qv::status::kDependencyNotFound);
}

// Start registers (or fails when refused), Stop unregisters, Uninit does both
// and gives back the plug-ins.
TEST(AgentBase, StartRegistersStopAndUninitUndoEverything) {
    MiniHost host(true, true);
    TestAgent agent;
    EXPECT_NE(agent.QueryInterface(IQvBaseInterface::iid), nullptr);
    EXPECT_NE(agent.QueryInterface(IServPlugin::iid), nullptr);
    EXPECT_NE(agent.QueryInterface(EnterpriseIntegration::IAgent::iid), nullptr);
    EXPECT_EQ(agent.QueryInterface(EnterpriseIntegration::IManager::iid), nullptr);
    ASSERT_EQ(agent.Init(&host.main), 0);
    EXPECT_TRUE(agent.IsReady());
    EXPECT_EQ(host.components.TotalReferences(), 2);

    host.agents.SetRefuseRegistration(true);
    EXPECT_EQ(agent.Start(), qv::status::kFunctionFailed);
    EXPECT_FALSE(agent.registered());
    host.agents.SetRefuseRegistration(false);
    ASSERT_EQ(agent.Start(), 0);
    EXPECT_TRUE(agent.registered());
    EXPECT_EQ(host.agents.FindAgent(L"Test.Agent"), &agent);
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_FALSE(agent.registered());
    EXPECT_EQ(host.agents.GetAgentCount(), 0u);

    ASSERT_EQ(agent.Start(), 0);
    EXPECT_EQ(agent.Uninit(), 0);  // unregisters as well
    EXPECT_EQ(host.agents.GetAgentCount(), 0u);
    EXPECT_EQ(host.components.TotalReferences(), 0);
}
