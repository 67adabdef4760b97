#include "agent_fixture.h"

#include <atomic>
#include <map>
#include <thread>

#include "os/utf8.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace agent_test {
namespace {

using Rule = IConditionalRunner::Rule;
using Method = IConditionalRunner::Method;

const char* kRule1 =
    R"({"id": "r1", "displayName": "One \ud83d\ude00", "methodSetId": "m1", "matchIf": {"type": "boolean.TRUE"}})";
const char* kRule2 =
    R"({"id": "r2", "displayName": "Two", "methodSetId": "m2", "matchIf": {"type": "boolean.FALSE", "data": {}}})";
const char* kMethod1 = R"({"id": "m1", "displayName": "M1", "methods": [{"name": "a"}], "context": {"c": 1}})";
const char* kMethod2 = R"({"id": "m2", "displayName": "M2", "methods": []})";

std::string Join(const char* a, const char* b) { return std::string(a) + ", " + b; }

std::wstring Text(const Json::Value& v) { return os::Utf8ToWide(v.asString()).value(); }

Rule RuleOf(const char* json) {
    const Json::Value v = Parse(json);
    return Rule{Text(v["id"]), Text(v["displayName"]), Text(v["methodSetId"]), v["matchIf"]};
}

Method MethodOf(const char* json) {
    const Json::Value v = Parse(json);
    return Method{Text(v["id"]), Text(v["displayName"]), v["methods"],
                  v.isMember("context") ? v["context"] : Json::Value()};
}

class DispatchTest : public AgentTest {
protected:
    // Runs `method` on `request`; checks its status and its response (as text,
    // so that signed and unsigned numbers compare alike).
    void Expect(const wchar_t* method, const std::string& request, int32_t status, const std::string& response = "{}") {
        auto call = CallJson(method, request);
        EXPECT_EQ(call->GetResult(), status) << request;
        EXPECT_EQ(call->response()->toStyledString(), Parse(response).toStyledString()) << request;
    }
};

TEST_F(DispatchTest, BeforeInitEveryCallIsNotReady) {
    for (const wchar_t* method : {L"SetRules", L"GetRules", L"Unknown", L""}) {
        auto call = Call(method, Json::Value(Json::objectValue));
        EXPECT_EQ(call->GetResult(), 21);
    }
    EXPECT_TRUE(log.Contains(logging::kError, kRunPolicyMethod, L"not ready"));
    EXPECT_TRUE(runner.Calls().empty());
}

TEST_F(DispatchTest, NamesAreMatchedExactly) {
    InitAndStart();
    EXPECT_EQ(Call(nullptr, Json::Value(Json::objectValue))->GetResult(), qv::status::kInvalidParameter);
    EXPECT_EQ(Call(L"", Json::Value(Json::objectValue))->GetResult(), qv::status::kInvalidParameter);
    EXPECT_TRUE(log.Contains(logging::kError, kRunPolicyMethod, L"empty method name"));

    for (const wchar_t* name : {L"setrules", L"SetRules ", L"GetRule", L"NoSuchMethod"}) {
        EXPECT_EQ(CallJson(name, R"({"rules": []})")->GetResult(), 50) << name;
        EXPECT_TRUE(
            log.Contains(logging::kTrace, kRunPolicyMethod, L"Method not found [name = " + std::wstring(name) + L"]"));
    }
    EXPECT_TRUE(runner.Calls().empty());

    log.Clear();
    EXPECT_EQ(CallJson(L"GetRules", "{}")->GetResult(), 0);
    const auto lines = log.Lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front().message, L"-> ConditionalRunnerAgent::RunPolicyMethod()");
    EXPECT_EQ(lines[1].message, L"method name is GetRules");
    EXPECT_EQ(lines.back().message.rfind(L"<- ConditionalRunnerAgent::RunPolicyMethod() [", 0), 0u);
}

TEST_F(DispatchTest, RuleCommandsPassRulesAndReportErrors) {
    InitAndStart();
    runner.errorsOut = {IConditionalRunner::RuleError{1, 120}};
    runner.SetStatus("SetRules", 1627);
    // The errors are written even though the runner failed.
    Expect(L"SetRules", "{\"rules\": [" + Join(kRule1, kRule2) + "]}", 1627,
           R"({"rulesErrors": [{"index": 1, "error": 120}]})");
    EXPECT_TRUE(runner.received().rules == (qv::List<Rule>{RuleOf(kRule1), RuleOf(kRule2)}));

    runner.errorsOut.Clear();
    runner.SetStatus("SetRules", 0);
    Expect(L"SetRules", R"({"rules": []})", 0, R"({"rulesErrors": []})");
    EXPECT_TRUE(runner.received().rules.Empty());

    // The list ends at a null element.
    Expect(L"SetRules", "{\"rules\": [" + std::string(kRule1) + ", null]}", 0, R"({"rulesErrors": []})");
    EXPECT_TRUE(runner.received().rules == qv::List<Rule>{RuleOf(kRule1)});

    runner.rulesOut = {RuleOf(kRule2), RuleOf(kRule1)};
    Expect(L"GetRules", "{}", 0, "{\"rules\": [" + Join(kRule2, kRule1) + "]}");

    runner.SetStatus("GetRules", 1168);
    Expect(L"GetRules", "{}", 1168);

    // No response wanted: the call still runs.
    runner.SetStatus("GetRules", 0);
    EXPECT_EQ(Call(L"GetRules", Json::Value(Json::objectValue), false)->GetResult(), 0);

    Expect(L"UpdateRulesAndMethods",
           "{\"rules\": [" + std::string(kRule1) + "], \"methods\": [" + Join(kMethod1, kMethod2) + "]}", 0);
    EXPECT_TRUE(runner.received().rules == qv::List<Rule>{RuleOf(kRule1)});
    EXPECT_TRUE(runner.received().methodSets == (qv::List<Method>{MethodOf(kMethod1), MethodOf(kMethod2)}));
    EXPECT_EQ(runner.Calls(), (std::vector<std::string>{"SetRules", "SetRules", "SetRules", "GetRules", "GetRules",
                                                        "GetRules", "UpdateRulesAndMethods"}));
}

TEST_F(DispatchTest, MethodSetCommands) {
    InitAndStart();
    EXPECT_EQ(CallJson(L"SetMethodSet", kMethod1)->GetResult(), 0);
    EXPECT_EQ(runner.received().methodSet, MethodOf(kMethod1));
    EXPECT_TRUE(runner.received().signal);

    runner.methodSetOut = MethodOf(kMethod1);
    Expect(L"GetMethodSet", R"({"id": "m1"})", 0, R"({"methods": [{"name": "a"}]})");
    EXPECT_EQ(runner.received().id, L"m1");
    runner.SetStatus("GetMethodSet", 1168);
    Expect(L"GetMethodSet", R"({"id": "zz"})", 1168);

    runner.SetStatus("DeleteMethodSet", 1168);
    EXPECT_EQ(CallJson(L"DeleteMethodSet", R"({"id": "\u00e9"})")->GetResult(), qv::status::kNotFound);
    EXPECT_EQ(runner.received().id, L"\u00E9");
    EXPECT_EQ(CallJson(L"DeleteAllMethodSets", "{}")->GetResult(), 0);

    runner.idsOut = {L"a", L"b"};
    Expect(L"GetMethodSetIds", "{}", 0, R"({"ids": ["a", "b"]})");

    Expect(L"UpdateMethods", "{\"methods\": [" + std::string(kMethod2) + "]}", 0);
    EXPECT_TRUE(runner.received().methodSets == qv::List<Method>{MethodOf(kMethod2)});
    EXPECT_EQ(runner.Calls(), (std::vector<std::string>{"SetMethod", "GetMethodSet", "GetMethodSet", "DeleteMethodSet",
                                                        "DeleteAllMethodSets", "GetMethodSetIds", "UpdateMethods"}));
}

TEST_F(DispatchTest, SettingsAndSwitchCommands) {
    InitAndStart();
    runner.settingsOut.minEvalTime = 2;
    runner.settingsOut.maxPostponeTime = 30;
    Expect(L"GetSettings", "{}", 0, R"({"settings": {"minEvalTime": 2, "maxPostponeTime": 30}})");

    EXPECT_EQ(CallJson(L"SetSettings", R"({"settings": {"minEvalTime": 1, "maxPostponeTime": 9}})")->GetResult(), 0);
    EXPECT_EQ(runner.received().settings.minEvalTime, 1u);
    EXPECT_EQ(runner.received().settings.maxPostponeTime, 9u);

    runner.SetStatus("SetEnabled", 5);
    EXPECT_EQ(CallJson(L"SetEnabled", R"({"enabled": true})")->GetResult(), 5);
    EXPECT_TRUE(runner.received().enabled);

    runner.enabledOut = true;
    Expect(L"IsEnabled", "{}", 0, R"({"enabled": true})");
    runner.SetStatus("IsEnabled", 21);
    Expect(L"IsEnabled", "{}", 21);
}

TEST_F(DispatchTest, UnreadableRequestsAreRefusedWithoutCallingTheRunner) {
    const std::string badUtf8 = "\"x\xC3\x28y\"";
    const std::string rule = kRule1, method = kMethod2;
    const std::string ruleBadId =
        R"({"id": )" + badUtf8 + R"(, "displayName": "d", "methodSetId": "m", "matchIf": {}})";
    const std::string methodBadName = R"({"id": "m", "displayName": )" + badUtf8 + R"(, "methods": []})";
    // Per command, the requests it refuses; every command also refuses a call without request.
    const std::map<std::wstring, std::vector<std::string>> cases = {
        {L"SetRules",
         {"{}", R"({"rules": {}})", R"({"rules": [{"id": "r", "displayName": "d", "methodSetId": "m"}]})",
          "{\"rules\": [" + rule + ", 7]}", "{\"rules\": [" + ruleBadId + "]}"}},
        {L"SetMethodSet",
         {R"({"id": "m", "displayName": "d"})", R"({"id": 1, "displayName": "d", "methods": []})",
          R"({"id": "m", "displayName": "d", "methods": [], "context": null})", methodBadName, "[1]"}},
        {L"GetMethodSet", {"{}", R"({"id": 3})", "{\"id\": " + badUtf8 + "}"}},
        {L"DeleteMethodSet", {R"({"ids": "m"})", R"({"id": ["m"]})", "{\"id\": " + badUtf8 + "}"}},
        {L"DeleteAllMethodSets", {}},
        {L"GetMethodSetIds", {}},
        {L"GetRules", {}},
        {L"GetSettings", {}},
        {L"SetSettings",
         {R"({"settings": {"minEvalTime": 1}})", R"({"settings": {"maxPostponeTime": 1}})",
          R"({"settings": {"minEvalTime": "1", "maxPostponeTime": 1}})",
          R"({"settings": {"minEvalTime": -1, "maxPostponeTime": 1}})", R"({"minEvalTime": 1, "maxPostponeTime": 1})"}},
        {L"UpdateRulesAndMethods",
         {"{\"rules\": [" + rule + "]}", "{\"methods\": [" + method + "]}",
          "{\"rules\": [" + rule + "], \"methods\": {}}",
          "{\"rules\": [" + ruleBadId + "], \"methods\": [" + method + "]}",
          "{\"rules\": [" + rule + "], \"methods\": [" + methodBadName + "]}"}},
        {L"UpdateMethods", {"{}", R"({"methods": "m"})", "{\"methods\": [" + methodBadName + "]}"}},
        {L"SetEnabled", {"{}", R"({"enabled": 1})", R"({"enabled": "true"})"}},
        {L"IsEnabled", {}},
    };
    ASSERT_EQ(cases.size(), 13u);  // every command
    InitAndStart();
    for (const auto& [name, requests] : cases) {
        std::vector<std::optional<std::string>> all{std::nullopt};
        all.insert(all.end(), requests.begin(), requests.end());
        for (const std::optional<std::string>& request : all) {
            const std::string shown = os::WideToUtf8Lossy(name) + " " + request.value_or("(no request)");
            log.Clear();
            auto call = request ? Call(name.c_str(), Parse(*request)) : Call(name.c_str(), std::nullopt);
            EXPECT_EQ(call->GetResult(), 160) << shown;
            EXPECT_TRUE(log.Contains(logging::kWarning, kRunPolicyMethod, name + L" - input validation failed"))
                << shown;
            EXPECT_EQ(*call->response(), Json::Value(Json::objectValue)) << shown;
        }
    }
    EXPECT_TRUE(runner.Calls().empty());
}

TEST_F(DispatchTest, AMissingMemberIsNamedBeforeTheRefusal) {
    InitAndStart();
    EXPECT_EQ(CallJson(L"SetSettings", R"({"settings": {"minEvalTime": 1}})")->GetResult(), qv::status::kBadArguments);
    const auto lines = log.Lines();
    std::vector<std::wstring> messages;
    for (const auto& line : lines)
        if (line.level != 32) messages.push_back(line.message);
    EXPECT_EQ(messages, (std::vector<std::wstring>{L"Failed to load subnode maxPostponeTime",
                                                   L"SetSettings - input validation failed"}));
}

TEST_F(DispatchTest, CallsOnSeveralThreadsAtOnce) {
    InitAndStart();
    runner.rulesOut = {RuleOf(kRule1)};
    const Json::Value expected = Parse("{\"rules\": [" + std::string(kRule1) + "]}");
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                host::MethodCall call(L"Product.ConditionalRunner.Agent", i % 2 ? L"GetRules" : L"SetEnabled",
                                      i % 2 ? Json::Value(Json::objectValue) : Parse(R"({"enabled": false})"));
                agent->RunPolicyMethod(&call);
                if (call.GetResult() == 0 && (i % 2 == 0 || *call.response() == expected)) ++good;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(good.load(), 200);
    EXPECT_EQ(runner.Calls().size(), 200u);
}

}  // namespace
}  // namespace agent_test
