#include "agent_fixture.h"
#include "plugin/log.h"

namespace agent_test {
namespace {

using MethodRunData = IConditionalRunner::MethodRunData;
constexpr const wchar_t* kOnMethodSetsRun = L"ConditionalRunnerAgent::OnMethodSetsRun";

MethodRunData MakeRun(const std::wstring& methodSetId, int32_t status, const Json::Value& response,
                      std::initializer_list<std::wstring> ruleIds) {
    MethodRunData run;
    run.methodSetId = methodSetId;
    run.status = status;
    run.response = response;
    run.ruleIds = ruleIds;
    run.runOutput = Parse(R"({"private": true})");
    return run;
}

class EventTest : public AgentTest {
protected:
    EventTest() {
        host.agents().SetEventSink([this](const host::AgentManager::SentEvent& event) { delivered.push_back(event); });
    }
    // Delivers a report the way the runner does: through the subscribed listener.
    int32_t Report(const qv::List<MethodRunData>& runs) {
        EXPECT_NE(runner.listener, nullptr);
        return runner.listener ? runner.listener->OnMethodSetsRun(runs) : -1;
    }
    std::vector<std::wstring> Failures() const { return log.Messages(4); }

    std::vector<host::AgentManager::SentEvent> delivered;
};

TEST_F(EventTest, SeveralRunsMakeOneEventInReportOrder) {
    InitAndStart();
    qv::List<MethodRunData> runs{
        MakeRun(L"m2", 0, Parse(R"({"results": [1, 2]})"), {L"r3", L"r1"}),
        MakeRun(L"m1", 2250, Parse(R"("text")"), {L"\U0001F600"}),
        MakeRun(L"m3", 1168, Json::Value(), {}),
    };
    const qv::List<MethodRunData> before = runs;
    EXPECT_EQ(Report(runs), 0);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].name, L"Product.ConditionalRunner.MethodSetsRun");
    EXPECT_EQ(delivered[0].flags, 0);
    // Neither the method-set id nor the runner's own value travels.
    EXPECT_EQ(delivered[0].payload, Parse(R"({"data": [
        {"response": {"results": [1, 2]}, "error": 0, "rulesMatched": ["r3", "r1"]},
        {"response": "text", "error": 2250, "rulesMatched": ["\ud83d\ude00"]},
        {"response": null, "error": 1168, "rulesMatched": []}]})"));
    EXPECT_TRUE(runs == before);
    EXPECT_TRUE(Failures().empty());
    EXPECT_TRUE(log.Contains(logging::kTrace, kOnMethodSetsRun, L"-> ConditionalRunnerAgent::OnMethodSetsRun()"));
}

// Failures are logged and the report is lost; the runner is always answered 0.
TEST_F(EventTest, AnEmptyOrRefusedReportIsLoggedAndLost) {
    // Never initialised: no agent manager is held.
    IConditionalRunner::IEvents& events = *agent;
    EXPECT_EQ(events.OnMethodSetsRun(qv::List<MethodRunData>{MakeRun(L"m", 0, Json::Value(), {})}), 0);
    InitAndStart();
    EXPECT_EQ(Report(qv::List<MethodRunData>{}), 0);
    host.agents().SetRefuseEvents(true);
    EXPECT_EQ(Report(qv::List<MethodRunData>{MakeRun(L"m", 0, Json::Value(1), {L"r"})}), 0);
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(Failures(), (std::vector<std::wstring>{L"Cannot send MethodSetsRun event. [error = 87]",
                                                     L"Cannot send MethodSetsRun event. [error = 232]",
                                                     L"Cannot send MethodSetsRun event. [error = 1631]"}));
    EXPECT_TRUE(log.Contains(logging::kError, kOnMethodSetsRun, L"Cannot send MethodSetsRun event. [error = 232]"));

    // The next report goes through again.
    host.agents().SetRefuseEvents(false);
    EXPECT_EQ(Report(qv::List<MethodRunData>{MakeRun(L"m", 0, Json::Value(1), {L"r"})}), 0);
    EXPECT_EQ(delivered.size(), 1u);
    EXPECT_EQ(host.agents().Events().size(), 1u);
}

}  // namespace
}  // namespace agent_test
