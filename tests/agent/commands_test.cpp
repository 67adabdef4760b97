#include "agent_fixture.h"

#include <atomic>
#include <set>
#include <thread>

#include "os/utf8.h"

namespace agent_test {
namespace {

using Rule = IConditionalRunner::Rule;
using Method = IConditionalRunner::Method;

const char* kRule1 = R"({"id": "r1", "displayName": "One \ud83d\ude00", "methodSetId": "m1", "matchIf": {"type": "boolean.TRUE"}})";
const char* kRule2 = R"({"id": "r2", "displayName": "Two", "methodSetId": "m2", "matchIf": {"type": "boolean.FALSE", "data": {}}})";
const char* kMethod1 = R"({"id": "m1", "displayName": "M1", "methods": [{"name": "a"}], "context": {"c": 1}})";
const char* kMethod2 = R"({"id": "m2", "displayName": "M2", "methods": []})";

std::string Join(const char* a, const char* b) { return std::string(a) + ", " + b; }

Rule RuleOf(const char* json) {
    const Json::Value v = Parse(json);
    Rule rule;
    rule.id = os::Utf8ToWide(v["id"].asString()).value();
    rule.displayName = os::Utf8ToWide(v["displayName"].asString()).value();
    rule.methodSetId = os::Utf8ToWide(v["methodSetId"].asString()).value();
    rule.matchIf = v["matchIf"];
    return rule;
}

Method MethodOf(const char* json) {
    const Json::Value v = Parse(json);
    Method method;
    method.id = os::Utf8ToWide(v["id"].asString()).value();
    method.displayName = os::Utf8ToWide(v["displayName"].asString()).value();
    method.methods = v["methods"];
    if (v.isMember("context")) method.context = v["context"];
    return method;
}

using DispatchTest = AgentTest;

TEST_F(DispatchTest, BeforeInitEveryCallIsNotReady) {
    for (const wchar_t* method : {L"SetRules", L"GetRules", L"Unknown", L""}) {
        auto call = Call(method, Json::Value(Json::objectValue));
        EXPECT_EQ(call->GetResult(), 21);
    }
    EXPECT_TRUE(log.Contains(4, kRunPolicyMethod, L"not ready"));
    EXPECT_TRUE(runner.Calls().empty());
}

TEST_F(DispatchTest, NamesAreMatchedExactly) {
    InitAndStart();
    EXPECT_EQ(Call(nullptr, Json::Value(Json::objectValue))->GetResult(), 87);
    EXPECT_EQ(Call(L"", Json::Value(Json::objectValue))->GetResult(), 87);
    EXPECT_TRUE(log.Contains(4, kRunPolicyMethod, L"empty method name"));

    for (const wchar_t* name : {L"setrules", L"SetRules ", L"GetRule", L"NoSuchMethod"}) {
        EXPECT_EQ(CallJson(name, R"({"rules": []})")->GetResult(), 50) << name;
        EXPECT_TRUE(log.Contains(32, kRunPolicyMethod, L"Method not found [name = " + std::wstring(name) + L"]"));
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
    auto call = CallJson(L"SetRules", "{\"rules\": [" + Join(kRule1, kRule2) + "]}");
    EXPECT_EQ(call->GetResult(), 1627);
    EXPECT_TRUE(runner.received().rules == (qv::List<Rule>{RuleOf(kRule1), RuleOf(kRule2)}));
    // Written even though the runner failed.
    EXPECT_EQ(*call->response(), Parse(R"({"rulesErrors": [{"index": 1, "error": 120}]})"));

    runner.errorsOut.Clear();
    runner.SetStatus("SetRules", 0);
    EXPECT_EQ(*CallJson(L"SetRules", R"({"rules": []})")->response(), Parse(R"({"rulesErrors": []})"));
    EXPECT_TRUE(runner.received().rules.Empty());

    runner.rulesOut = {RuleOf(kRule2), RuleOf(kRule1)};
    call = CallJson(L"GetRules", "{}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(*call->response(), Parse("{\"rules\": [" + Join(kRule2, kRule1) + "]}"));

    runner.SetStatus("GetRules", 1168);
    call = CallJson(L"GetRules", "{}");
    EXPECT_EQ(call->GetResult(), 1168);
    EXPECT_EQ(*call->response(), Json::Value(Json::objectValue));

    // No response wanted: the call still runs.
    runner.SetStatus("GetRules", 0);
    EXPECT_EQ(Call(L"GetRules", Json::Value(Json::objectValue), false)->GetResult(), 0);

    call = CallJson(L"UpdateRulesAndMethods", "{\"rules\": [" + std::string(kRule1) + "], \"methods\": [" + Join(kMethod1, kMethod2) + "]}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_TRUE(runner.received().rules == qv::List<Rule>{RuleOf(kRule1)});
    EXPECT_TRUE(runner.received().methodSets == (qv::List<Method>{MethodOf(kMethod1), MethodOf(kMethod2)}));
    EXPECT_EQ(*call->response(), Json::Value(Json::objectValue));
    EXPECT_EQ(runner.Calls(), (std::vector<std::string>{"SetRules", "SetRules", "GetRules", "GetRules", "GetRules",
                                                         "UpdateRulesAndMethods"}));
}

TEST_F(DispatchTest, MethodSetCommands) {
    InitAndStart();
    auto call = CallJson(L"SetMethodSet", kMethod1);
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(runner.received().methodSet, MethodOf(kMethod1));
    EXPECT_TRUE(runner.received().signal);

    runner.methodSetOut = MethodOf(kMethod1);
    call = CallJson(L"GetMethodSet", R"({"id": "m1"})");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(runner.received().id, L"m1");
    EXPECT_EQ(*call->response(), Parse(R"({"methods": [{"name": "a"}]})"));  // methods only
    runner.SetStatus("GetMethodSet", 1168);
    call = CallJson(L"GetMethodSet", R"({"id": "zz"})");
    EXPECT_EQ(call->GetResult(), 1168);
    EXPECT_EQ(*call->response(), Json::Value(Json::objectValue));

    runner.SetStatus("DeleteMethodSet", 1168);
    EXPECT_EQ(CallJson(L"DeleteMethodSet", R"({"id": "\u00e9"})")->GetResult(), 1168);
    EXPECT_EQ(runner.received().id, L"\u00E9");
    EXPECT_EQ(CallJson(L"DeleteAllMethodSets", "{}")->GetResult(), 0);

    runner.idsOut = {L"a", L"b"};
    call = CallJson(L"GetMethodSetIds", "{}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(*call->response(), Parse(R"({"ids": ["a", "b"]})"));

    call = CallJson(L"UpdateMethods", "{\"methods\": [" + std::string(kMethod2) + "]}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_TRUE(runner.received().methodSets == qv::List<Method>{MethodOf(kMethod2)});
    EXPECT_EQ(runner.Calls(), (std::vector<std::string>{"SetMethod", "GetMethodSet", "GetMethodSet", "DeleteMethodSet",
                                                         "DeleteAllMethodSets", "GetMethodSetIds", "UpdateMethods"}));
}

TEST_F(DispatchTest, SettingsAndSwitchCommands) {
    InitAndStart();
    runner.settingsOut.minEvalTime = 2;
    runner.settingsOut.maxPostponeTime = 30;
    auto call = CallJson(L"GetSettings", "{}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(call->response()->toStyledString(),
              Parse(R"({"settings": {"minEvalTime": 2, "maxPostponeTime": 30}})").toStyledString());

    EXPECT_EQ(CallJson(L"SetSettings", R"({"settings": {"minEvalTime": 1, "maxPostponeTime": 9}})")->GetResult(), 0);
    EXPECT_EQ(runner.received().settings.minEvalTime, 1u);
    EXPECT_EQ(runner.received().settings.maxPostponeTime, 9u);

    runner.SetStatus("SetEnabled", 5);
    EXPECT_EQ(CallJson(L"SetEnabled", R"({"enabled": true})")->GetResult(), 5);
    EXPECT_TRUE(runner.received().enabled);

    runner.enabledOut = true;
    call = CallJson(L"IsEnabled", "{}");
    EXPECT_EQ(call->GetResult(), 0);
    EXPECT_EQ(*call->response(), Parse(R"({"enabled": true})"));
    runner.SetStatus("IsEnabled", 21);
    EXPECT_EQ(*CallJson(L"IsEnabled", "{}")->response(), Json::Value(Json::objectValue));
}

// Requests that must be refused before the runner is called.
struct BadRequest {
    const wchar_t* method;
    std::optional<std::string> request;  // nullopt: the call has no request at all
};

TEST_F(DispatchTest, UnreadableRequestsAreRefusedWithoutCallingTheRunner) {
    const std::string badUtf8 = "\"x\xC3\x28y\"";
    const std::string rule = kRule1;
    const std::string ruleBadId = R"({"id": )" + badUtf8 + R"(, "displayName": "d", "methodSetId": "m", "matchIf": {}})";
    const std::string method = kMethod2;
    const std::string methodBadName = R"({"id": "m", "displayName": )" + badUtf8 + R"(, "methods": []})";
    const std::vector<BadRequest> cases = {
        {L"SetRules", std::nullopt},
        {L"SetRules", "{}"},
        {L"SetRules", R"({"rules": {}})"},
        {L"SetRules", R"({"rules": [{"id": "r", "displayName": "d", "methodSetId": "m"}]})"},
        {L"SetRules", "{\"rules\": [" + rule + ", 7]}"},
        {L"SetRules", "{\"rules\": [" + ruleBadId + "]}"},
        {L"SetMethodSet", std::nullopt},
        {L"SetMethodSet", R"({"id": "m", "displayName": "d"})"},
        {L"SetMethodSet", R"({"id": 1, "displayName": "d", "methods": []})"},
        {L"SetMethodSet", R"({"id": "m", "displayName": "d", "methods": [], "context": null})"},
        {L"SetMethodSet", methodBadName},
        {L"SetMethodSet", "[1]"},
        {L"GetMethodSet", std::nullopt},
        {L"GetMethodSet", "{}"},
        {L"GetMethodSet", R"({"id": 3})"},
        {L"GetMethodSet", "{\"id\": " + badUtf8 + "}"},
        {L"DeleteMethodSet", std::nullopt},
        {L"DeleteMethodSet", R"({"ids": "m"})"},
        {L"DeleteMethodSet", R"({"id": ["m"]})"},
        {L"DeleteMethodSet", "{\"id\": " + badUtf8 + "}"},
        {L"DeleteAllMethodSets", std::nullopt},
        {L"GetMethodSetIds", std::nullopt},
        {L"GetRules", std::nullopt},
        {L"GetSettings", std::nullopt},
        {L"SetSettings", std::nullopt},
        {L"SetSettings", R"({"settings": {"minEvalTime": 1}})"},
        {L"SetSettings", R"({"settings": {"maxPostponeTime": 1}})"},
        {L"SetSettings", R"({"settings": {"minEvalTime": "1", "maxPostponeTime": 1}})"},
        {L"SetSettings", R"({"settings": {"minEvalTime": -1, "maxPostponeTime": 1}})"},
        {L"SetSettings", R"({"minEvalTime": 1, "maxPostponeTime": 1})"},
        {L"UpdateRulesAndMethods", std::nullopt},
        {L"UpdateRulesAndMethods", "{\"rules\": [" + rule + "]}"},
        {L"UpdateRulesAndMethods", "{\"methods\": [" + method + "]}"},
        {L"UpdateRulesAndMethods", "{\"rules\": [" + rule + "], \"methods\": {}}"},
        {L"UpdateRulesAndMethods", "{\"rules\": [" + ruleBadId + "], \"methods\": [" + method + "]}"},
        {L"UpdateRulesAndMethods", "{\"rules\": [" + rule + "], \"methods\": [" + methodBadName + "]}"},
        {L"UpdateMethods", std::nullopt},
        {L"UpdateMethods", "{}"},
        {L"UpdateMethods", R"({"methods": "m"})"},
        {L"UpdateMethods", "{\"methods\": [" + methodBadName + "]}"},
        {L"SetEnabled", std::nullopt},
        {L"SetEnabled", "{}"},
        {L"SetEnabled", R"({"enabled": 1})"},
        {L"SetEnabled", R"({"enabled": "true"})"},
        {L"IsEnabled", std::nullopt},
    };
    InitAndStart();
    for (const BadRequest& c : cases) {
        const std::string shown = c.request.value_or("(no request)");
        log.Clear();
        auto call = c.request ? Call(c.method, Parse(*c.request)) : Call(c.method, std::nullopt);
        EXPECT_EQ(call->GetResult(), 160) << shown;
        EXPECT_TRUE(log.Contains(8, kRunPolicyMethod, std::wstring(c.method) + L" - input validation failed")) << shown;
        EXPECT_EQ(*call->response(), Json::Value(Json::objectValue)) << shown;
    }
    EXPECT_TRUE(runner.Calls().empty());

    // Every one of the 13 commands is covered, each at least without a request.
    std::set<std::wstring> covered;
    for (const BadRequest& c : cases)
        if (!c.request) covered.insert(c.method);
    EXPECT_EQ(covered.size(), 13u);
}

TEST_F(DispatchTest, AMissingMemberIsNamedBeforeTheRefusal) {
    InitAndStart();
    EXPECT_EQ(CallJson(L"SetSettings", R"({"settings": {"minEvalTime": 1}})")->GetResult(), 160);
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
