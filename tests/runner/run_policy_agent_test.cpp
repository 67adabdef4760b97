// The runner's policy agent: preset values from the module's table, and the
// two results that make a run's rules be retried.
#include <gtest/gtest.h>

#include "qv/status.h"
#include "runner/run_policy_agent.h"
#include "support/log_capture.h"

namespace {

using Product::Integration::ConditionalRunner::ConditionalRunnerRunPolicyAgent;
constexpr const wchar_t* kFunction = L"ConditionalRunnerAL::ConditionalRunnerRunPolicyAgent::OnAfterRunPolicy";

TEST(RunPolicyAgent, AnswersPresetValuesFromTheTableOnly) {
    ConditionalRunnerRunPolicyAgent agent;
    int32_t value = 7;
    EXPECT_TRUE(agent.QueryMethodValue(L"Firewall", L"EnablePrependMachineRules", value));
    EXPECT_EQ(value, 0);
    value = 7;
    EXPECT_FALSE(agent.QueryMethodValue(L"Firewall", L"enablePrependMachineRules", value));
    EXPECT_EQ(value, 7);
}

TEST(RunPolicyAgent, RecordsNotConnectedAndAgentNotFoundOnly) {
    testing_support::LogCapture capture;
    ConditionalRunnerRunPolicyAgent agent;
    agent.OnAfterRunPolicy(L"P", L"ok", 0);
    agent.OnAfterRunPolicy(L"P", L"failed", qv::status::kFunctionFailed);
    EXPECT_FALSE(agent.notConnected() || agent.agentNotFound());
    EXPECT_TRUE(capture.Messages().empty());

    agent.OnAfterRunPolicy(L"P", L"offline", qv::status::kNotConnected);
    EXPECT_TRUE(agent.notConnected());
    EXPECT_FALSE(agent.agentNotFound());
    agent.OnAfterRunPolicy(L"Q", L"gone", qv::status::kAgentNotFound);
    EXPECT_TRUE(agent.agentNotFound());
    EXPECT_TRUE(capture.Contains(logging::kWarning, kFunction, L"Running method P.offline returned with err=2250"));
    EXPECT_TRUE(
        capture.Contains(logging::kWarning, kFunction, L"Running method Q.gone returned with ERROR_AGENT_NOT_FOUND"));

    agent.Reset();
    EXPECT_FALSE(agent.notConnected() || agent.agentNotFound());
}

}  // namespace
