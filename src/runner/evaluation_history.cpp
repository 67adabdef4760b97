#include "runner/evaluation_history.h"

#include "os/utf8.h"
#include "os/wall_time.h"

namespace Product::Integration::ConditionalRunner {
namespace {

constexpr EvaluationTrigger kTriggers[] = {
    EvaluationTrigger::kStart,   EvaluationTrigger::kConditionChange, EvaluationTrigger::kRetry,
    EvaluationTrigger::kEnabled, EvaluationTrigger::kConsole,         EvaluationTrigger::kServiceConnected,
};

Json::Value Ids(const std::vector<std::wstring>& ids) {
    Json::Value list(Json::arrayValue);
    for (const std::wstring& id : ids) list.append(os::WideToUtf8Lossy(id));
    return list;
}

Json::Value RecordJson(const EvaluationRecord& record) {
    Json::Value entry(Json::objectValue);
    entry["time"] = os::Iso8601Utc(record.when);
    Json::Value& triggers = entry["triggers"] = Json::Value(Json::arrayValue);
    for (EvaluationTrigger trigger : kTriggers)
        if (record.triggers & static_cast<uint32_t>(trigger)) triggers.append(TriggerName(trigger));
    entry["trueRules"] = record.trueRules ? Ids(*record.trueRules) : Json::Value(Json::arrayValue);
    entry["trueRuleCount"] = static_cast<Json::UInt64>(record.trueRuleCount);
    entry["notRunCount"] =
        static_cast<Json::UInt64>(record.notRunCount + (record.trueRulesUnchanged ? record.trueRuleCount : 0));
    Json::Value& runs = entry["runs"] = Json::Value(Json::arrayValue);
    for (const EvaluationRecord::MethodSetRun& run : record.runs) {
        Json::Value item(Json::objectValue);
        item["methodSetId"] = os::WideToUtf8Lossy(run.methodSetId);
        item["rules"] = run.ruleIds ? Ids(*run.ruleIds) : Json::Value(Json::arrayValue);
        item["status"] = run.status;
        item["response"] = run.response;
        runs.append(item);
    }
    Json::Value& notRun = entry["notRun"] = Json::Value(Json::arrayValue);
    for (const EvaluationRecord::RuleNotRun& rule : record.notRun) {
        Json::Value item(Json::objectValue);
        item["ruleId"] = os::WideToUtf8Lossy(rule.ruleId);
        item["reason"] = NotRunReasonText(rule.reason);
        notRun.append(item);
    }
    if (record.trueRulesUnchanged && record.trueRules) {
        for (const std::wstring& id : *record.trueRules) {
            if (notRun.size() >= EvaluationHistory::kListedRules) break;
            Json::Value item(Json::objectValue);
            item["ruleId"] = os::WideToUtf8Lossy(id);
            item["reason"] = NotRunReasonText(NotRunReason::kUnchanged);
            notRun.append(item);
        }
    }
    if (record.retryAt) entry["retryAt"] = os::Iso8601Utc(*record.retryAt);
    return entry;
}

}  // namespace

const char* TriggerName(EvaluationTrigger trigger) noexcept {
    switch (trigger) {
        case EvaluationTrigger::kStart:
            return "start";
        case EvaluationTrigger::kConditionChange:
            return "conditionChange";
        case EvaluationTrigger::kRetry:
            return "retry";
        case EvaluationTrigger::kEnabled:
            return "enabled";
        case EvaluationTrigger::kConsole:
            return "console";
        case EvaluationTrigger::kServiceConnected:
            return "serviceConnected";
    }
    return "unknown";
}

const char* NotRunReasonText(NotRunReason reason) noexcept {
    switch (reason) {
        case NotRunReason::kUnchanged:
            return "unchanged since the last run";
        case NotRunReason::kMethodSetUnknown:
            return "method set unknown";
        case NotRunReason::kRunnerDisabled:
            return "runner disabled";
        case NotRunReason::kTransactionOpen:
            return "transaction open";
    }
    return "unknown";
}

void EvaluationHistory::Record(EvaluationRecord record) {
    os::MutexLock lock(mutex_);
    if (records_.size() == kCapacity) records_.pop_front();
    records_.push_back(std::move(record));
}

Json::Value EvaluationHistory::ToJson() const {
    std::deque<EvaluationRecord> copy;
    {
        os::MutexLock lock(mutex_);
        copy = records_;
    }
    Json::Value list(Json::arrayValue);
    for (const EvaluationRecord& record : copy) list.append(RecordJson(record));
    return list;
}

std::optional<EvaluationRecord> EvaluationHistory::Last() const {
    os::MutexLock lock(mutex_);
    if (records_.empty()) return std::nullopt;
    return records_.back();
}

size_t EvaluationHistory::size() const {
    os::MutexLock lock(mutex_);
    return records_.size();
}

}  // namespace Product::Integration::ConditionalRunner
