// The runner's history stays bounded however many rules and passes there
// are, and lists what it kept in order.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "runner/evaluation_history.h"

namespace {

using Product::Integration::ConditionalRunner::EvaluationHistory;
using Product::Integration::ConditionalRunner::EvaluationRecord;
using Product::Integration::ConditionalRunner::EvaluationTrigger;
using Product::Integration::ConditionalRunner::NotRunReason;

std::shared_ptr<const std::vector<std::wstring>> Ids(size_t count) {
    auto ids = std::make_shared<std::vector<std::wstring>>();
    for (size_t i = 0; i < count; ++i) ids->push_back(L"rule" + std::to_wstring(i));
    return ids;
}

TEST(EvaluationHistory, KeepsTheLastPassesOldestFirst) {
    EvaluationHistory history;
    for (size_t pass = 0; pass < EvaluationHistory::kCapacity + 5; ++pass) {
        EvaluationRecord record;
        record.triggers = static_cast<uint32_t>(EvaluationTrigger::kConditionChange);
        record.trueRules = Ids(pass % 3);
        record.trueRuleCount = pass % 3;
        history.Record(std::move(record));
    }
    const Json::Value json = history.ToJson();
    ASSERT_EQ(json.size(), EvaluationHistory::kCapacity);
    // The first five went: the oldest kept is pass 5 (5 % 3 = 2 true rules).
    EXPECT_EQ(json[0]["trueRuleCount"].asUInt64(), 2u);
    EXPECT_EQ(json[0]["triggers"][0], "conditionChange");
    EXPECT_EQ(history.Last()->trueRuleCount, (EvaluationHistory::kCapacity + 4) % 3);
}

TEST(EvaluationHistory, UnchangedRulesAreListedFromTheSharedListUpToTheLimit) {
    EvaluationHistory history;
    EvaluationRecord record;
    const size_t many = EvaluationHistory::kListedRules * 3;
    record.trueRules = Ids(EvaluationHistory::kListedRules);  // the runner keeps only the first ones
    record.trueRuleCount = many;
    record.trueRulesUnchanged = true;
    record.notRun.push_back({L"lost", NotRunReason::kMethodSetUnknown});
    record.notRunCount = 1;
    history.Record(std::move(record));
    const Json::Value entry = history.ToJson()[0];
    EXPECT_EQ(entry["trueRuleCount"].asUInt64(), many);
    EXPECT_EQ(entry["trueRules"].size(), EvaluationHistory::kListedRules);
    // The unknown method set first, then the unchanged rules, no more than the limit listed.
    EXPECT_EQ(entry["notRunCount"].asUInt64(), many + 1);
    ASSERT_EQ(entry["notRun"].size(), EvaluationHistory::kListedRules);
    EXPECT_EQ(entry["notRun"][0]["reason"], "method set unknown");
    EXPECT_EQ(entry["notRun"][1]["ruleId"], "rule0");
    EXPECT_EQ(entry["notRun"][1]["reason"], "unchanged since the last run");
}

}  // namespace
