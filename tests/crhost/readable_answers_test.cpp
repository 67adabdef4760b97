// cr-host's answers read by a person: a failed status comes with its name,
// policy runs and events say when they happened, and "help" lists what the
// console accepts.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "host_process.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::IsEvent;
using crhost_test::IsPolicyRun;
using crhost_test::Parse;

bool IsUtcTime(const Json::Value& value) {
    static const std::regex form(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z)");
    return value.isString() && std::regex_match(value.asString(), form);
}

// `json` written on one line, as the console reads it.
std::string OneLine(const std::string& json) { return crhost_test::Compact(Parse(json)); }

class CrHostReadableAnswers : public testing::Test {
protected:
    std::vector<std::wstring> Arguments() const { return crhost_test::StateAndLogIn(dir_); }
    testing_support::TempDir dir_;
};

TEST_F(CrHostReadableAnswers, AFailedStatusComesWithItsName) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());

    Json::Value answer = host.Method("SetRules", Parse(R"({"rules":"none"})"));
    EXPECT_EQ(answer["status"], qv::status::kBadArguments);
    EXPECT_EQ(answer["statusName"], "ERROR_BAD_ARGUMENTS");
    answer = host.Host(Parse(R"({"host":"sleep","ms":"long"})"));
    EXPECT_EQ(answer["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(answer["statusName"], "ERROR_INVALID_PARAMETER");
    answer = host.Host(Parse(R"({"host":"no.such.action"})"));
    EXPECT_EQ(answer["statusName"], "ERROR_NOT_FOUND");
    answer = host.Host(Parse(R"({"host":"explain","condition":{"type":"no.such.type"}})"));
    EXPECT_EQ(answer["status"], qv::status::kCallNotImplemented);
    EXPECT_EQ(answer["statusName"], "ERROR_CALL_NOT_IMPLEMENTED");
    // A success carries no name.
    answer = host.Method("GetRules");
    EXPECT_EQ(answer["status"], 0);
    EXPECT_FALSE(answer.isMember("statusName"));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostReadableAnswers, ATreeThatCannotBeBuiltNamesWhereAndWhy) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    auto explain = [&](const std::string& condition) {
        return host.Host(Parse(R"({"host":"explain","condition":)" + condition + "}"));
    };

    // The third child's address is not an address; the second is fine.
    Json::Value answer = explain(R"({"type":"boolean.AND","data":{"conditions":[{"type":"boolean.TRUE"},
        {"type":"network.IP","data":{"address":"10.0.0.1"}},{"type":"network.IP","data":{"address":"10.0.0.300"}}]}})");
    EXPECT_EQ(answer["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(answer["failedAt"], "data.conditions[2].data.address");
    bool named = false;
    for (const Json::Value& message : answer["messages"])
        named = named || message.asString().find("10.0.0.300") != std::string::npos;
    EXPECT_TRUE(named) << "the module's reason is not among the messages: " << answer.toStyledString();

    // A member left out, below a NOT; a wrong JSON type; an unknown type; a
    // combinator without children.
    EXPECT_EQ(
        explain(R"({"type":"boolean.NOT","data":{"condition":{"type":"network.IPRange","data":{"start":"1.2.3.4"}}}})")
            ["failedAt"],
        "data.condition.data.end");
    EXPECT_EQ(explain(R"({"type":"boolean.OR","data":{"conditions":[{"type":"boolean.FALSE"},
        {"type":"network.ConnectionType","data":{"type":"wifi","ssid":7}}]}})")["failedAt"],
              "data.conditions[1].data.ssid");
    answer = explain(R"({"type":"network.Unknown"})");
    EXPECT_EQ(answer["status"], qv::status::kCallNotImplemented);
    EXPECT_EQ(answer["failedAt"], "type");
    EXPECT_EQ(explain(R"({"type":"boolean.OR","data":{"conditions":[]}})")["failedAt"], "data.conditions");
    // A tree that builds has neither.
    answer = explain(R"({"type":"boolean.TRUE"})");
    EXPECT_FALSE(answer.isMember("failedAt"));
    EXPECT_FALSE(answer.isMember("messages"));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostReadableAnswers, StatusShowsTheModuleAtAGlance) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"M","displayName":"","methods":[]})"))["status"], 0);
    ASSERT_EQ(host.Method("SetRules", Parse(R"({"rules":[
        {"id":"a","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.AND","data":{"conditions":[
            {"type":"network.IP","data":{"address":"10.0.0.0/8"}},{"type":"boolean.TRUE"}]}}},
        {"id":"b","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}}]})"))["status"],
              0);
    ASSERT_EQ(host.Method("SetEnabled", Parse(R"({"enabled":false})"))["status"], 0);

    const Json::Value status = host.Host(Parse(R"({"host":"status"})"));
    ASSERT_EQ(status["status"], 0) << status.toStyledString();
    EXPECT_EQ(status["enabled"], false);
    EXPECT_EQ(status["rules"], 2);
    EXPECT_EQ(status["methodSets"], 1);
    EXPECT_TRUE(status["settings"].isMember("minEvalTime")) << status.toStyledString();
    // The rules' own trees, and nothing else, are alive.
    EXPECT_EQ(status["conditions"], Parse(R"({"boolean.AND":1,"boolean.TRUE":2,"network.IP":1})"));
    EXPECT_GE(status["threads"]["process"].asUInt(), 1u);
    EXPECT_EQ(status["stateFile"]["path"], os::WideToUtf8Lossy(dir_.File(L"state.json")));
    EXPECT_GT(status["stateFile"]["bytes"].asUInt64(), 0u);

    // Freed trees leave the count.
    ASSERT_EQ(host.Method("SetRules", Parse(R"({"rules":[]})"))["status"], 0);
    EXPECT_EQ(host.Host(Parse(R"({"host":"status"})"))["conditions"], Parse(R"({})"));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostReadableAnswers, RunsAndEventsSayWhenTheyHappened) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":0,"maxPostponeTime":60}})"))["status"], 0);
    ASSERT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":0})"))["status"], 0);
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"M","displayName":"m","methods":[
                                                   {"plugin":"P","method":"m"},{"plugin":"Gone","method":"m"}]})"))
                  ["status"],
              0);
    ASSERT_EQ(host.Method("SetRules", Parse(R"({"rules":[{"id":"r","displayName":"","methodSetId":"M",
                                                "matchIf":{"type":"boolean.TRUE"}}]})"))["status"],
              0);
    const std::optional<Json::Value> run = host.WaitFor(IsPolicyRun());
    ASSERT_TRUE(run.has_value());
    EXPECT_TRUE(IsUtcTime((*run)["time"])) << run->toStyledString();
    const std::optional<Json::Value> event = host.WaitFor(IsEvent());
    ASSERT_TRUE(event.has_value());
    EXPECT_TRUE(IsUtcTime((*event)["time"])) << event->toStyledString();
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostReadableAnswers, HelpListsWhatTheConsoleAccepts) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const Json::Value help = host.Host(Parse(R"({"host":"help"})"));
    ASSERT_EQ(help["status"], 0);
    ASSERT_GE(help["methods"].size(), 13u);
    ASSERT_GE(help["actions"].size(), 13u);

    // Every command listed reaches the module's agent: none is unknown to it.
    for (const Json::Value& method : help["methods"]) {
        const Json::Value answer = host.Method(method.asString(), Parse(R"({})"));
        EXPECT_NE(answer["status"], 50) << method.asString() << " is not a command of the module";
    }
    // Every action listed is one the host knows; those that end or wait are left out.
    for (const Json::Value& action : help["actions"]) {
        const std::string name = action["host"].asString();
        EXPECT_FALSE(action["does"].asString().empty()) << name;
        if (name == "quit" || name == "exit" || name == "help") continue;
        Json::Value request(Json::objectValue);
        request["host"] = name;
        const Json::Value answer = host.Host(request);
        EXPECT_NE(answer["error"], "unknown host action") << name;
    }
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostReadableAnswers, PrettyOutputDrawsTreesAndGivesRunsAndEventsALineEach) {
    const std::wstring flag = dir_.File(L"flag");
    ASSERT_TRUE(os::OpenFile(flag, L"wb"));
    std::vector<std::wstring> arguments = Arguments();
    arguments.push_back(L"--pretty");
    HostProcess host(arguments);
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const std::string path = Json::Value(os::WideToUtf8Lossy(flag)).toStyledString();
    ASSERT_TRUE(host.Send(OneLine(R"({"id":1,"host":"explain","condition":{"type":"boolean.AND","data":{"conditions":[
        {"type":"boolean.TRUE"},{"type":"boolean.NOT","data":{"condition":
        {"type":"Test.FileExists","data":{"filePath":)" +
                                  path + R"(}}}}]}}})")));
    ASSERT_TRUE(host.Send(R"({"id":2,"host":"explain","condition":{"type":"network.IP","data":{"address":"1.2.3"}}})"));
    ASSERT_TRUE(
        host.Send(R"({"id":3,"method":"SetSettings","request":{"settings":{"minEvalTime":0,"maxPostponeTime":60}}})"));
    ASSERT_TRUE(host.Send(
        R"({"id":4,"method":"SetMethodSet","request":{"id":"M","displayName":"","methods":[{"plugin":"P","method":"m"}]}})"));
    ASSERT_TRUE(host.Send(
        R"({"id":5,"method":"SetRules","request":{"rules":[{"id":"r1","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}}]}})"));
    const auto has = [&host](const std::string& wanted) {
        return testing_support::Eventually([&] {
            for (const std::string& line : host.RawLines())
                if (line.find(wanted) != std::string::npos) return true;
            return false;
        });
    };
    EXPECT_TRUE(has("#1 explain  ok"));
    EXPECT_TRUE(has("  \u2717 boolean.AND"));
    EXPECT_TRUE(has("    \u2713 boolean.TRUE"));
    EXPECT_TRUE(has("    \u2717 boolean.NOT"));
    EXPECT_TRUE(has("      \u2713 Test.FileExists {\"filePath\":"));
    EXPECT_TRUE(has("#2 explain  status 87 ERROR_INVALID_PARAMETER: the condition tree cannot be built"));
    EXPECT_TRUE(has("  failedAt: data.address"));
    EXPECT_TRUE(has(" run    P.m -> 0  status 0"));
    EXPECT_TRUE(has(" event  Product.ConditionalRunner.MethodSetsRun"));
    EXPECT_TRUE(has("rules r1 -> error 0"));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

}  // namespace
