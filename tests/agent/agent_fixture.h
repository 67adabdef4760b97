#pragma once
// A reference host with a recording runner registered as "Product.ConditionalRunner",
// and an agent to drive through it.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include <json/reader.h>

#include "agent/conditional_runner_agent.h"
#include "host/method_call.h"
#include "host/reference_host.h"
#include "plugin/module_names.h"
#include "recording_runner.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

namespace agent_test {

using Product::Integration::ConditionalRunner::ConditionalRunnerAgent;

inline Json::Value Parse(const std::string& text) { return testing_support::ParseJson(text); }

class AgentTest : public ::testing::Test {
protected:
    static constexpr const wchar_t* kRunnerName = qv::names::kModule;
    static constexpr const wchar_t* kAgentManagerName = EnterpriseIntegration::IManager::kPluginName;
    static constexpr const wchar_t* kRunPolicyMethod = L"ConditionalRunnerAgent::RunPolicyMethod";

    AgentTest() { host.components().Register(kRunnerName, &runner); }
    ~AgentTest() override {
        agent.reset();
        // Every plug-in reference the agent took was given back.
        EXPECT_EQ(host.components().TotalReferences(), 0);
    }

    void InitAndStart() {
        ASSERT_EQ(agent->Init(host.main()), 0);
        ASSERT_EQ(agent->Start(), 0);
        runner.ClearCalls();
    }

    // Runs one console call; `request` nullopt means a call without request.
    std::unique_ptr<host::MethodCall> Call(const wchar_t* method, std::optional<Json::Value> request,
                                           bool wantResponse = true) {
        auto call = std::make_unique<host::MethodCall>(agentName(), method, std::move(request), wantResponse);
        agent->RunPolicyMethod(call.get());
        EXPECT_EQ(call->results().size(), 1u) << "exactly one result per call";
        return call;
    }
    std::unique_ptr<host::MethodCall> CallJson(const wchar_t* method, const std::string& request) {
        return Call(method, Parse(request));
    }

    std::wstring agentName() const {
        std::wstring name;
        agent->GetName(name);
        return name;
    }

    testing_support::LogCapture log;
    host::ReferenceHost host;
    RecordingRunner runner;
    std::unique_ptr<ConditionalRunnerAgent> agent = std::make_unique<ConditionalRunnerAgent>();
};

}  // namespace agent_test
