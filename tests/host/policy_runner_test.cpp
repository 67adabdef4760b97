#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/reader.h>

#include "host/clock.h"
#include "host/policy_runner.h"
#include "host/reference_host.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/waiting.h"

namespace {

using namespace std::chrono_literals;
using EnterpriseIntegration::IManager;
using EnterpriseIntegration::IRunPolicy;
using testing_support::Finishes;

// Notes every call as "query:P.m" / "result:P.m=r", and presets one method.
class RecordingAgent final : public EnterpriseIntegration::RunPolicyAgent {
public:
    bool QueryMethodValue(const std::wstring& plugin, const std::wstring& method, int32_t& value) override {
        Note(L"query:" + plugin + L"." + method);
        if (plugin + L"." + method != presetFor) return false;
        value = presetValue;
        return true;
    }
    void OnAfterRunPolicy(const std::wstring& plugin, const std::wstring& method, int32_t result) override {
        Note(L"result:" + plugin + L"." + method + L"=" + std::to_wstring(result));
    }
    std::vector<std::wstring> Calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    std::wstring presetFor;
    int32_t presetValue = 0;

private:
    void Note(std::wstring call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::mutex mutex_;
    std::vector<std::wstring> calls_;
};

Json::Value Parse(const std::wstring& text) {
    Json::Value value;
    std::string errors;
    const std::string utf8 = os::WideToUtf8Lossy(text);
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(utf8.data(), utf8.data() + utf8.size(), &value, &errors)) << errors;
    return value;
}

constexpr const wchar_t* kThreeMethods =
    LR"({"methods": [{"plugin": "A", "method": "one", "params": {"x": 1}},
                     {"plugin": "B", "method": "two"}, {"plugin": "C", "method": "three"}]})";

TEST(PolicyRunner, RunsMethodByMethodTellingTheAgentAndReturnsTheFirstFailure) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    std::vector<host::PolicyRunner::Run> sunk;
    runner.SetRunSink([&](const host::PolicyRunner::Run& run) { sunk.push_back(run); });
    runner.SetResult(L"B", L"two", qv::status::kNotConnected);
    runner.SetResult(L"C", L"three", qv::status::kAgentNotFound);
    RecordingAgent agent;
    agent.presetFor = L"B.two";
    agent.presetValue = 7;

    std::wstring response;
    Json::Value details;
    EXPECT_EQ(runner.RunPolicy(kThreeMethods, response, 0, details, L"caller", &agent), qv::status::kNotConnected);

    EXPECT_EQ(agent.Calls(), (std::vector<std::wstring>{L"query:A.one", L"result:A.one=0", L"query:B.two",
                                                        L"result:B.two=" + std::to_wstring(qv::status::kNotConnected),
                                                        L"query:C.three",
                                                        L"result:C.three=" + std::to_wstring(qv::status::kAgentNotFound)}));
    const Json::Value results = Parse(response)["results"];
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0]["plugin"].asString(), "A");
    EXPECT_EQ(results[0]["method"].asString(), "one");
    EXPECT_EQ(results[0]["result"].asInt(), 0);
    EXPECT_FALSE(results[0].isMember("preset"));
    EXPECT_EQ(results[1]["preset"].asInt(), 7);
    EXPECT_EQ(results[2]["result"].asInt(), qv::status::kAgentNotFound);
    EXPECT_EQ(details["caller"].asString(), "caller");

    // Without an agent the same set runs alike; every run is recorded and sunk.
    EXPECT_EQ(runner.RunPolicy(kThreeMethods, response, 0, details, nullptr, nullptr), qv::status::kNotConnected);
    const auto runs = runner.Runs();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(sunk.size(), 2u);
    EXPECT_EQ(runs[0].caller, L"caller");
    EXPECT_FALSE(runs[0].refused);
    EXPECT_EQ(runs[0].request["methods"][0]["params"]["x"].asInt(), 1);
    ASSERT_EQ(runs[0].methods.size(), 3u);
    EXPECT_EQ(runs[0].methods[0].params["x"].asInt(), 1);
    EXPECT_TRUE(runs[0].methods[1].preset);
    EXPECT_FALSE(runs[1].methods[1].preset);
    EXPECT_EQ(runs[1].methods[2].result, qv::status::kAgentNotFound);
}

TEST(PolicyRunner, MalformedRequestRunsNothingAndIsRecordedAsRefused) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    RecordingAgent agent;
    const std::vector<const wchar_t*> requests{
        nullptr, L"not json", L"[]", L"{}", LR"({"methods": {}})", LR"({"methods": [1]})",
        LR"({"methods": [{"plugin": "A"}]})", LR"({"methods": [{"plugin": "A", "method": 5}]})",
        LR"({"methods": [{"plugin": "", "method": "m"}]})", LR"({"methods": []} trailing)"};
    for (const wchar_t* request : requests) {
        std::wstring response = L"stale";
        Json::Value details;
        EXPECT_EQ(runner.RunPolicy(request, response, 0, details, L"caller", &agent), qv::status::kInvalidParameter)
            << (request ? os::WideToUtf8Lossy(request) : "null");
        EXPECT_TRUE(response.empty());
    }
    EXPECT_TRUE(agent.Calls().empty());
    const auto runs = runner.Runs();
    ASSERT_EQ(runs.size(), requests.size());
    for (const auto& run : runs) {
        EXPECT_TRUE(run.refused);
        EXPECT_TRUE(run.methods.empty());
        EXPECT_EQ(run.status, qv::status::kInvalidParameter);
    }
}

TEST(PolicyRunner, ConcurrentRunsWaitForADelayedMethodByTheClock) {
    host::ManualClock clock;
    host::PolicyRunner runner(clock);
    runner.SetResult(L"Slow", L"wait", qv::status::kTimeout, 50ms);
    constexpr int kThreads = 4;
    std::vector<std::unique_ptr<RecordingAgent>> agents;
    std::vector<std::future<void>> runs;
    for (int i = 0; i < kThreads; ++i) {
        agents.push_back(std::make_unique<RecordingAgent>());
        runs.push_back(std::async(std::launch::async, [&runner, agent = agents.back().get()] {
            std::wstring response;
            Json::Value details;
            const wchar_t* request =
                LR"({"methods": [{"plugin": "Fast", "method": "a"}, {"plugin": "Slow", "method": "wait"},
                                 {"plugin": "Fast", "method": "b"}]})";
            EXPECT_EQ(runner.RunPolicy(request, response, 0, details, L"thread", agent), qv::status::kTimeout);
        }));
    }
    ASSERT_TRUE(testing_support::Eventually([&] { return runner.WaitingMethods() == kThreads; }));
    runner.SetResult(L"Fast", L"b", 0);  // configuring while runs are under way
    clock.Advance(49ms);
    EXPECT_EQ(runner.WaitingMethods(), static_cast<size_t>(kThreads));
    EXPECT_TRUE(runner.Runs().empty());
    clock.Advance(1ms);
    for (auto& run : runs) ASSERT_TRUE(Finishes(run));
    EXPECT_EQ(runner.Runs().size(), static_cast<size_t>(kThreads));
    for (const auto& agent : agents) EXPECT_EQ(agent->Calls().size(), 6u);
}

TEST(PolicyRunner, ReachableWithTheAgentManagerUnderOneName) {
    host::ReferenceHost host;
    auto& components = host.components();
    void* runnerOut = nullptr;
    void* managerOut = nullptr;
    ASSERT_EQ(components.GetPlugin(IRunPolicy::kPluginName, IRunPolicy::iid, &runnerOut), 0);
    ASSERT_EQ(components.GetPlugin(IManager::kPluginName, IManager::iid, &managerOut), 0);
    auto* runner = static_cast<IRunPolicy*>(runnerOut);
    auto* manager = static_cast<IManager*>(managerOut);
    EXPECT_EQ(runner->QueryInterface(IManager::iid), managerOut);
    EXPECT_EQ(manager->QueryInterface(IRunPolicy::iid), runnerOut);

    std::wstring response;
    Json::Value details;
    EXPECT_EQ(runner->RunPolicy(LR"({"methods": [{"plugin": "A", "method": "m"}]})", response, 0, details, L"svc",
                                nullptr),
              0);
    ASSERT_EQ(host.policyRunner().Runs().size(), 1u);
    EXPECT_EQ(host.policyRunner().Runs()[0].caller, L"svc");
    EXPECT_TRUE(manager->SendEvent(L"event", Json::Value(1), 0));
    EXPECT_EQ(host.agents().Events().size(), 1u);

    EXPECT_EQ(components.References(IManager::kPluginName), 2);
    components.ReleasePlugin(IRunPolicy::kPluginName);
    components.ReleasePlugin(IManager::kPluginName);
    EXPECT_EQ(components.TotalReferences(), 0);
}

}  // namespace
