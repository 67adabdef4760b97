#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/reader.h>

#include "host/reference_host.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/waiting.h"

namespace {

using namespace std::chrono_literals;
using EnterpriseIntegration::IManager;
using EnterpriseIntegration::IRunPolicy;
using PolicyRun = host::PolicyRunner::Run;

// Notes "?P.m" for each question and "P.m=r" for each result; presets B.two.
class Agent final : public EnterpriseIntegration::RunPolicyAgent {
public:
    bool QueryMethodValue(const std::wstring& plugin, const std::wstring& method, int32_t& value) override {
        Note(L"?" + plugin + L"." + method);
        if (plugin != L"B") return false;
        value = 7;
        return true;
    }
    void OnAfterRunPolicy(const std::wstring& plugin, const std::wstring& method, int32_t result) override {
        Note(plugin + L"." + method + L"=" + std::to_wstring(result));
    }
    std::vector<std::wstring> Calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void Note(std::wstring call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::mutex mutex_;
    std::vector<std::wstring> calls_;
};

int32_t RunOn(IRunPolicy& runner, const wchar_t* request, Agent* agent, std::wstring* response = nullptr) {
    std::wstring text;
    Json::Value details;
    const int32_t status = runner.RunPolicy(request, text, 0, details, L"caller", agent);
    if (response) *response = text;
    return status;
}

constexpr const wchar_t* kThreeMethods =
    LR"({"methods": [{"plugin": "A", "method": "one", "params": {"x": 1}},
    {"plugin": "B", "method": "two"}, {"plugin": "C", "method": "three"}]})";

TEST(PolicyRunner, RunsMethodByMethodTellingTheAgentAndReturnsTheFirstFailure) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    int sunk = 0;
    runner.SetRunSink([&](const PolicyRun&) { ++sunk; });
    runner.SetResult(L"B", L"two", qv::status::kNotConnected);
    runner.SetResult(L"C", L"three", qv::status::kAgentNotFound);
    Agent agent;
    std::wstring response;
    EXPECT_EQ(RunOn(runner, kThreeMethods, &agent, &response), qv::status::kNotConnected);
    const std::wstring notConnected = std::to_wstring(qv::status::kNotConnected);
    const std::wstring agentNotFound = std::to_wstring(qv::status::kAgentNotFound);
    EXPECT_EQ(agent.Calls(), (std::vector<std::wstring>{L"?A.one", L"A.one=0", L"?B.two", L"B.two=" + notConnected,
                                                        L"?C.three", L"C.three=" + agentNotFound}));

    Json::Value body;
    const std::string utf8 = os::WideToUtf8Lossy(response);
    ASSERT_TRUE(std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())
                    ->parse(utf8.data(), utf8.data() + utf8.size(), &body, nullptr));
    std::string listed;
    for (const Json::Value& r : body["results"])
        listed += r["plugin"].asString() + "." + r["method"].asString() + "=" + std::to_string(r["result"].asInt()) +
                  (r.isMember("preset") ? "/" + std::to_string(r["preset"].asInt()) : "") + " ";
    EXPECT_EQ(os::Utf8ToWideLossy(listed), L"A.one=0 B.two=" + notConnected + L"/7 C.three=" + agentNotFound + L" ");

    // Without an agent nothing is preset; both runs are recorded and sunk.
    EXPECT_EQ(RunOn(runner, kThreeMethods, nullptr), qv::status::kNotConnected);
    const std::vector<PolicyRun> runs = runner.Runs();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(sunk, 2);
    EXPECT_EQ(runs[0].caller, L"caller");
    EXPECT_EQ(runs[0].request["methods"][0]["params"]["x"].asInt(), 1);
    ASSERT_EQ(runs[1].methods.size(), 3u);
    EXPECT_TRUE(runs[0].methods[1].preset);
    EXPECT_FALSE(runs[1].methods[1].preset);
    EXPECT_EQ(runs[1].methods[2].result, qv::status::kAgentNotFound);
}

TEST(PolicyRunner, MalformedRequestRunsNothingAndIsRecordedAsRefused) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    Agent agent;
    const std::vector<const wchar_t*> requests{nullptr,
                                               L"not json",
                                               L"[]",
                                               L"{}",
                                               LR"({"methods": {}})",
                                               LR"({"methods": [1]})",
                                               LR"({"methods": [{"plugin": "A"}]})",
                                               LR"({"methods": [{"plugin": "A", "method": 5}]})",
                                               LR"({"methods": [{"plugin": "", "method": "m"}]})",
                                               LR"({"methods": []} trailing)"};
    for (const wchar_t* request : requests) {
        std::wstring response = L"stale";
        EXPECT_EQ(RunOn(runner, request, &agent, &response), qv::status::kInvalidParameter)
            << (request ? os::WideToUtf8Lossy(request) : "null");
        EXPECT_TRUE(response.empty());
    }
    EXPECT_TRUE(agent.Calls().empty());
    const std::vector<PolicyRun> runs = runner.Runs();
    ASSERT_EQ(runs.size(), requests.size());
    for (const PolicyRun& run : runs) EXPECT_TRUE(run.refused && run.methods.empty());
}

TEST(PolicyRunner, ConcurrentRunsWaitForADelayedMethodByTheClock) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    runner.SetResult(L"Slow", L"wait", qv::status::kTimeout, 50ms);
    constexpr size_t kThreads = 4;
    std::vector<std::unique_ptr<Agent>> agents;
    std::vector<std::future<void>> runs;
    for (size_t i = 0; i < kThreads; ++i) {
        agents.push_back(std::make_unique<Agent>());
        runs.push_back(std::async(std::launch::async, [&runner, agent = agents.back().get()] {
            EXPECT_EQ(RunOn(runner,
                            LR"({"methods": [{"plugin": "Fast", "method": "a"},
                {"plugin": "Slow", "method": "wait"}, {"plugin": "Fast", "method": "b"}]})",
                            agent),
                      qv::status::kTimeout);
        }));
    }
    ASSERT_TRUE(testing_support::Eventually([&] { return runner.WaitingMethods() == kThreads; }));
    runner.SetResult(L"Fast", L"b", 0);  // configuring while runs are under way
    clock.Advance(49ms);
    EXPECT_EQ(runner.WaitingMethods(), kThreads);
    EXPECT_TRUE(runner.Runs().empty());
    clock.Advance(1ms);
    for (auto& run : runs) ASSERT_TRUE(testing_support::Finishes(run));
    EXPECT_EQ(runner.Runs().size(), kThreads);
    for (const auto& agent : agents) EXPECT_EQ(agent->Calls().size(), 6u);
}

// The host going away while a run waits: the run ends at once, aborted, and
// the runner is gone only after the caller has left it.
TEST(PolicyRunner, DestructionEndsTheRunsThatWaitAndWaitsForTheirCallers) {
    host::ManualClock clock;
    auto runner = std::make_unique<host::PolicyRunner>(clock);
    runner->SetResult(L"Slow", L"wait", 0, 1h);
    Agent agent;
    std::future<void> run = std::async(std::launch::async, [&] {
        EXPECT_EQ(
            RunOn(*runner, LR"({"methods": [{"plugin": "Slow", "method": "wait"}, {"plugin": "A", "method": "b"}]})",
                  &agent),
            qv::status::kOperationAborted);
    });
    ASSERT_TRUE(testing_support::Eventually([&] { return runner->WaitingMethods() == 1; }));
    runner.reset();
    ASSERT_TRUE(testing_support::Finishes(run));
    EXPECT_EQ(agent.Calls(), (std::vector<std::wstring>{L"?Slow.wait"}));
}

TEST(PolicyRunner, OfferedWithTheAgentManagerUnderOneName) {
    host::ReferenceHost host;
    void* runner = nullptr;
    void* manager = nullptr;
    ASSERT_EQ(host.components().GetPlugin(IRunPolicy::kPluginName, IRunPolicy::iid, &runner), 0);
    ASSERT_EQ(host.components().GetPlugin(IManager::kPluginName, IManager::iid, &manager), 0);
    EXPECT_EQ(static_cast<IRunPolicy*>(runner)->QueryInterface(IManager::iid), manager);
    EXPECT_EQ(static_cast<IManager*>(manager)->QueryInterface(IRunPolicy::iid), runner);

    EXPECT_EQ(RunOn(*static_cast<IRunPolicy*>(runner), LR"({"methods": []})", nullptr), 0);
    EXPECT_EQ(host.policyRunner().Runs().size(), 1u);
    EXPECT_TRUE(static_cast<IManager*>(manager)->SendEvent(L"event", Json::Value(1), 0));
    EXPECT_EQ(host.agents().Events().size(), 1u);

    host.components().ReleasePlugin(IRunPolicy::kPluginName);
    host.components().ReleasePlugin(IManager::kPluginName);
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

}  // namespace
