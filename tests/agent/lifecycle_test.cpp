#include "agent_fixture.h"
#include "plugin/log.h"
#include "qv/status.h"

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
    EXPECT_TRUE(log.Contains(logging::kTrace, L"ConditionalRunnerAgent::Start", L"-> ConditionalRunnerAgent::Start()"));

    EXPECT_EQ(agent->Stop(), 0);
    EXPECT_FALSE(agent->registered());
    EXPECT_TRUE(host.agents().Agents().empty());
    EXPECT_EQ(runner.listener, nullptr);
    EXPECT_EQ(agent->Stop(), 0);  // a second Stop changes nothing
    EXPECT_EQ(runner.unsubscribes, 1);

    // Uninit without Stop leaves the runner and the manager all the same.
    ASSERT_EQ(agent->Start(), 0);
    EXPECT_EQ(agent->Uninit(), 0);
    EXPECT_EQ(runner.listener, nullptr);
    EXPECT_TRUE(host.agents().Agents().empty());
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

TEST_F(LifecycleTest, MissingDependenciesAndARefusingManagerFailCleanly) {
    EXPECT_EQ(agent->Start(), qv::status::kNotAllAssigned);  // before Init

    host.components().Unregister(kRunnerName);
    EXPECT_EQ(agent->Init(host.main()), qv::status::kDependencyNotFound);
    EXPECT_EQ(host.components().TotalReferences(), 0);
    EXPECT_TRUE(log.Contains(
        logging::kWarning, L"ServPlugin<struct Product::Integration::ConditionalRunner::IConditionalRunner>::GetPlugin",
        L"Error 1168 getting plugin \"Product.ConditionalRunner\""));

    host.components().Register(kRunnerName, &runner);
    ASSERT_EQ(agent->Init(host.main()), 0);
    host.agents().SetRefuseRegistration(true);
    EXPECT_EQ(agent->Start(), qv::status::kFunctionFailed);
    EXPECT_TRUE(
        log.Contains(logging::kError, L"ConditionalRunnerAgent::Start", L"Cannot start plugin. [error = 1627]"));
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

}  // namespace
}  // namespace agent_test
