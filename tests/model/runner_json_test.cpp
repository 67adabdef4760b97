#include <gtest/gtest.h>

#include <cstring>

#include <json/reader.h>

#include "model/runner_json.h"
#include "plugin/log.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

using namespace Product::Integration::ConditionalRunner;
using namespace Product::Integration::ConditionalRunner::JsonForms;
using testing_support::LogCapture;

namespace {

Json::Value Parse(const std::string& text) { return testing_support::ParseJson(text); }

// Writes through JSON text and parses it again, as a request or a stored document would travel.
Json::Value ThroughText(const Json::Value& value) { return Parse(value.toStyledString()); }

Rule MakeRule(const std::wstring& id, const std::wstring& methodSetId) {
    Rule rule;
    rule.id = id;
    rule.displayName = L"Rule " + id + L" \U0001F600";
    rule.methodSetId = methodSetId;
    rule.matchIf = Parse(R"({"type": "boolean.AND", "data": {"conditions": [{"type": "boolean.TRUE"}]}})");
    return rule;
}

Method MakeMethod(const std::wstring& id, bool withContext) {
    Method method;
    method.id = id;
    method.displayName = L"Set \u00E9 " + id;
    method.methods = Parse(R"([{"name": "Firewall.Enable", "params": {"on": true}}, 3])");
    if (withContext) method.context = Parse(R"({"reason": "rule"})");
    return method;
}

}  // namespace

TEST(RecordJson, RulesRoundTripWithTheirConditionTreesKeptAsGiven) {
    qv::List<Rule> rules{MakeRule(L"r1", L"m1"), MakeRule(L"r2", L"m2")};
    Json::Value doc(Json::objectValue);
    ASSERT_TRUE(WriteRules(doc, keys::kRules, rules));
    ASSERT_EQ(doc["rules"].size(), 2u);
    EXPECT_EQ(doc["rules"][1], Parse(R"({"id": "r2", "displayName": "Rule r2 \ud83d\ude00", "methodSetId": "m2",
        "matchIf": {"type": "boolean.AND", "data": {"conditions": [{"type": "boolean.TRUE"}]}}})"));

    qv::List<Rule> back;
    ASSERT_TRUE(ReadRules(ThroughText(doc), keys::kRules, back));
    EXPECT_TRUE(back == rules);

    // A list under another member (the stored form uses "data") and an empty array.
    Json::Value stored;
    ASSERT_TRUE(WriteRules(stored, L"data", rules));
    qv::List<Rule> fromStored, none;
    ASSERT_TRUE(ReadRules(stored, L"data", fromStored));
    EXPECT_TRUE(fromStored == rules);
    ASSERT_TRUE(ReadRules(Parse(R"({"rules": []})"), keys::kRules, none));
    EXPECT_TRUE(none.Empty());
    ASSERT_TRUE(WriteRules(stored, L"data", none));
    EXPECT_EQ(stored["data"], Json::Value(Json::arrayValue));
}

TEST(RecordJson, MethodSetsRoundTripWithAndWithoutContext) {
    qv::List<Method> methods{MakeMethod(L"m1", true), MakeMethod(L"m2", false)};
    Json::Value doc;
    ASSERT_TRUE(WriteMethods(doc, keys::kMethods, methods));
    EXPECT_TRUE(doc["methods"][0].isMember("context"));
    EXPECT_FALSE(doc["methods"][1].isMember("context"));
    qv::List<Method> back;
    ASSERT_TRUE(ReadMethods(ThroughText(doc), keys::kMethods, back));
    EXPECT_TRUE(back == methods);
    EXPECT_TRUE(back.GetTail()->context.isNull());

    // One method set as a whole request (the empty path); any "context" type
    // is kept, but a null one is refused, as is a missing "methods".
    Method single;
    ASSERT_TRUE(ReadMethod(Parse(R"({"id": "x", "displayName": "X", "methods": {}, "context": "c"})"), L"", single));
    EXPECT_EQ(single.id, L"x");
    EXPECT_EQ(single.context, Json::Value("c"));
    LogCapture log;
    EXPECT_FALSE(ReadMethod(Parse(R"({"id": "m", "displayName": "d", "methods": [], "context": null})"), L"", single));
    EXPECT_TRUE(log.Contains(L"Failed to load subnode context"));
    EXPECT_FALSE(ReadMethod(Parse(R"({"id": "m", "displayName": "d"})"), L"", single));
    EXPECT_TRUE(log.Contains(L"Failed to load subnode methods"));
    EXPECT_EQ(single.id, L"x");
}

TEST(RecordJson, ErrorsIdsSettingsAndSwitchRoundTrip) {
    qv::List<RuleError> errors{RuleError{0, 120}, RuleError{3, 1627}};
    qv::List<std::wstring> ids{L"a", L"\U0001F600", L""};
    Settings settings;
    settings.minEvalTime = 7;
    settings.maxPostponeTime = 4000000000u;
    Json::Value doc;
    ASSERT_TRUE(WriteRuleErrors(doc, keys::kRulesErrors, errors));
    ASSERT_TRUE(WriteIds(doc, keys::kIds, ids));
    ASSERT_TRUE(WriteSettings(doc, keys::kSettings, settings));
    ASSERT_TRUE(WriteEnabled(doc, keys::kEnabled, false));
    // Compared as text: the reader types small numbers signed.
    EXPECT_EQ(doc.toStyledString(), Parse(R"({"rulesErrors": [{"index": 0, "error": 120}, {"index": 3, "error": 1627}],
        "ids": ["a", "\ud83d\ude00", ""], "settings": {"minEvalTime": 7, "maxPostponeTime": 4000000000},
        "enabled": false})")
                                        .toStyledString());

    const Json::Value text = ThroughText(doc);
    qv::List<RuleError> errorsBack;
    qv::List<std::wstring> idsBack;
    Settings settingsBack;
    bool enabled = true;
    ASSERT_TRUE(ReadRuleErrors(text, keys::kRulesErrors, errorsBack));
    ASSERT_TRUE(ReadIds(text, keys::kIds, idsBack));
    ASSERT_TRUE(ReadSettings(text, keys::kSettings, settingsBack));
    ASSERT_TRUE(ReadEnabled(text, keys::kEnabled, enabled));
    EXPECT_TRUE(errorsBack == errors);
    EXPECT_TRUE(idsBack == ids);
    EXPECT_EQ(settingsBack, settings);
    EXPECT_FALSE(enabled);
}

TEST(RecordJson, ARuleMissingAMemberIsRejectedNamingIt) {
    const char* members[] = {"id", "displayName", "methodSetId", "matchIf"};
    for (const char* missing : members) {
        Json::Value doc;
        WriteRule(doc, L"rules[0]", MakeRule(L"r", L"m"));
        doc["rules"][0].removeMember(missing);
        LogCapture log;
        Rule rule = MakeRule(L"kept", L"kept");
        qv::List<Rule> list;
        EXPECT_FALSE(ReadRule(doc, L"rules[0]", rule)) << missing;
        EXPECT_EQ(rule.id, L"kept");
        EXPECT_FALSE(ReadRules(doc, keys::kRules, list)) << missing;
        const std::wstring expected = L"Failed to load subnode " + std::wstring(missing, missing + strlen(missing));
        EXPECT_TRUE(log.Contains(logging::kDetail, L"JsonComposedSerializer::Load", expected)) << missing;
    }
}

TEST(RecordJson, ListsRejectWrongShapesAndBadElements) {
    LogCapture log;
    qv::List<Rule> rules;
    for (const char* json : {R"({"rules": {"0": {}}})", R"({"other": []})", R"({"rules": [1]})"})
        EXPECT_FALSE(ReadRules(Parse(json), keys::kRules, rules)) << json;
    EXPECT_TRUE(log.Contains(L"Failed to load subnode rules"));

    // A good element followed by a bad one fails the whole read.
    Json::Value doc;
    WriteRule(doc, L"rules[0]", MakeRule(L"r", L"m"));
    doc["rules"][1] = Parse(R"({"id": 5, "displayName": "d", "methodSetId": "m", "matchIf": {}})");
    EXPECT_FALSE(ReadRules(doc, keys::kRules, rules));

    qv::List<std::wstring> ids;
    EXPECT_FALSE(ReadIds(Parse(R"({"ids": ["a", 2]})"), keys::kIds, ids));
    qv::List<Method> methods;
    EXPECT_FALSE(ReadMethods(Parse(R"({"methods": "m"})"), keys::kMethods, methods));

    // A rule list refused by the list's own limit fails the read too.
    qv::List<Rule> small(1);
    Json::Value two;
    WriteRules(two, keys::kRules, qv::List<Rule>{MakeRule(L"a", L"m"), MakeRule(L"b", L"m")});
    EXPECT_FALSE(ReadRules(two, keys::kRules, small));
}

TEST(RecordJson, ListsEndAtTheFirstMissingOrNullElement) {
    Json::Value doc;
    WriteRule(doc, L"rules[0]", MakeRule(L"r", L"m"));
    doc["rules"][1] = Json::Value();
    WriteRule(doc, L"rules[2]", MakeRule(L"after", L"m"));
    LogCapture log;
    qv::List<Rule> rules;
    ASSERT_TRUE(ReadRules(doc, keys::kRules, rules));
    EXPECT_TRUE(rules == qv::List<Rule>{MakeRule(L"r", L"m")});
    qv::List<Rule> none;
    ASSERT_TRUE(ReadRules(Parse(R"({"rules": [null]})"), keys::kRules, none));
    EXPECT_TRUE(none.Empty());
    qv::List<std::wstring> ids;
    ASSERT_TRUE(ReadIds(Parse(R"({"ids": ["a", null, "c"]})"), keys::kIds, ids));
    EXPECT_TRUE(ids == qv::List<std::wstring>{L"a"});
    EXPECT_TRUE(log.Messages().empty());
}

TEST(RecordJson, ARecordAtAMissingPathReadsAsAnEmptyRecordWithoutChangingTheInput) {
    Json::Value doc = Parse(R"({"rules": [{"id": "r"}], "s": "text", "n": null})");
    const Json::Value before = doc;
    for (const wchar_t* path : {L"rules[3]", L"other/rule", L"s/rule", L"s[0]", L"n"}) {
        LogCapture log;
        Rule rule = MakeRule(L"kept", L"kept");
        Method method = MakeMethod(L"kept", false);
        EXPECT_FALSE(ReadRule(doc, path, rule)) << path;
        EXPECT_FALSE(ReadMethod(doc, path, method)) << path;
        // The record's first member is what is missing, not the path itself.
        EXPECT_EQ(log.Messages(),
                  (std::vector<std::wstring>{L"Failed to load subnode id", L"Failed to load subnode id"}))
            << path;
        EXPECT_EQ(rule.id, L"kept");
        EXPECT_EQ(method.id, L"kept");
    }
    EXPECT_EQ(doc, before);

    // A malformed path yields nothing to read from.
    LogCapture log;
    Rule rule;
    EXPECT_FALSE(ReadRule(doc, L"rules[", rule));
    EXPECT_EQ(log.Messages(), std::vector<std::wstring>{L"Failed to load subnode rules["});
}
