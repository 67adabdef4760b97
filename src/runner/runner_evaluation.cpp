// One evaluation pass: which rules are true, whether that changed since the
// last run, and the method-set runs that follow.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "os/utf8.h"
#include "os/wall_time.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"
#include "runner/conditional_runner_al.h"
#include "runner/policy_run.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kReEvalRules = L"ConditionalRunnerAL::ReEvalRules";
constexpr const wchar_t* kRunMethod = L"ConditionalRunnerAL::RunMethod";
// Who asks the policy runner: the host's service.
constexpr const wchar_t* kCaller = L"ovrahostsvc.exe";
}  // namespace

int32_t ConditionalRunnerAL::MakeRequest(const std::wstring& methodSetId, std::wstring& request) {
    logging::Log(logging::kDetail, kRunMethod, L"Try to run method [%s]", methodSetId.c_str());
    Method stored;
    if (const int32_t status = store_.ReadMethod(methodSetId, stored); status != 0) return status;
    // Requests kept from earlier passes go with any change of the method sets.
    if (requestsVersion_ != methodSetsVersion_) {
        requests_.Forget();
        requestsVersion_ = methodSetsVersion_;
    }
    request = requests_.Request(methodSetId, std::move(stored.methods), std::move(stored.context));
    return 0;
}

std::vector<TrueRule> ConditionalRunnerAL::CollectTrueRules(bool invalidateCache,
                                                            std::vector<std::wstring>& unknownMethodSet,
                                                            size_t& unknownCount) {
    // Nothing is copied until the pass knows that something changed.
    std::vector<TrueRule> trueRules;
    trueRules.reserve(rules_.size());
    for (RuleEntry& entry : rules_) {
        if (!entry.condition) continue;
        bool state = false;
        const int32_t status = entry.condition->GetState(&state, invalidateCache);
        logging::Log(logging::kDetail, kReEvalRules, L"Rule with id %s has state %s", entry.rule->rule().id.c_str(),
                     state ? L"true" : L"false");
        if (status != 0 || !state) continue;
        if (entry.methodSetCheckedAt != methodSetsVersion_) {
            const auto found = methodSets_.find(entry.rule->rule().methodSetId);
            entry.methodSet = found == methodSets_.end() ? nullptr : &found->second;
            entry.methodSetCheckedAt = methodSetsVersion_;
        }
        if (!entry.methodSet) {
            logging::Log(logging::kDetail, kReEvalRules, L"method (%s) was not found",
                         entry.rule->rule().methodSetId.c_str());
            if (unknownCount++ < EvaluationHistory::kListedRules) unknownMethodSet.push_back(entry.rule->rule().id);
            continue;
        }
        trueRules.push_back(TrueRule{LastRun::Installed{&entry.rule, entry.serial}, entry.methodSet});
    }
    return trueRules;
}

ConditionalRunnerAL::PassEnd ConditionalRunnerAL::RunAll(qv::List<MethodRunData>& toRun, bool& leftUnapplied) {
    logging::CallTrace trace(kRunMethod);
    // The runs whose method set exists, each with the index of its request
    // (kNoRequest when its stored node could not be read: its status is then
    // that error and nothing is submitted).
    constexpr size_t kNoRequest = static_cast<size_t>(-1);
    struct Pending {
        MethodRunData* run;
        size_t index;  // in toRun
        const Method* methodSet;
        size_t request;
    };
    std::vector<Pending> pending;
    std::vector<std::wstring> requests;
    size_t index = 0;
    for (qv::ListEnumPtr<MethodRunData> e(toRun.CreateEnum()); e->IsValid(); e->Next(), ++index) {
        MethodRunData& run = *e->Current();
        const auto found = methodSets_.find(run.methodSetId);
        if (found == methodSets_.end()) {
            logging::Log(logging::kError, kReEvalRules, L"Cannot find methodSetId %s", run.methodSetId.c_str());
            run.status = qv::status::kNotFound;
            continue;
        }
        std::wstring request;
        if (const int32_t status = MakeRequest(run.methodSetId, request); status != 0) {
            run.status = status;
            pending.push_back(Pending{&run, index, &found->second, kNoRequest});
            continue;
        }
        pending.push_back(Pending{&run, index, &found->second, requests.size()});
        requests.push_back(std::move(request));
    }
    std::unique_ptr<PolicyRun> runs;
    if (!requests.empty()) {
        runs = std::make_unique<PolicyRun>(*policyRunner_.get(), std::move(requests), kCaller);
        // Given up by a Stop whose time limit passed: nothing more runs, is
        // reported or saved. The stored flag still says a run was under way,
        // so a restart runs every true rule again.
        if (runs->Wait(giveUpRun_) == PolicyRun::Outcome::kGivenUp) return PassEnd::kGivenUp;
    }
    for (const Pending& entry : pending) {
        MethodRunData& run = *entry.run;
        bool notConnected = false;
        bool agentNotFound = false;
        if (entry.request != kNoRequest) {
            run.status = runs->status(entry.request);
            run.runOutput = std::move(runs->details(entry.request));
            run.response = requests_.ParseResponse(runs->response(entry.request), kReEvalRules);
            notConnected = runs->agent(entry.request).notConnected();
            agentNotFound = runs->agent(entry.request).agentNotFound();
        }
        logging::Log(logging::kDetail, kReEvalRules, L"Running methodSetId %s, err = %i", run.methodSetId.c_str(),
                     run.status);
        const std::wstring& name = entry.methodSet->displayName;
        if (notConnected)
            logging::Log(logging::kWarning, kReEvalRules, L"running methodset [%s] returned with error 2250",
                         name.c_str());
        if (agentNotFound)
            logging::Log(logging::kWarning, kReEvalRules, L"running methodset [%s] returned with error AGENT_NOT_FOUND",
                         name.c_str());
        if (notConnected || agentNotFound) {
            // The run did not reach its target: its rules count as changed
            // at the next pass, which a later signal brings.
            lastRun_.Forget(runGroups_.RulesOf(entry.index));
            leftUnapplied = true;
        }
    }
    return PassEnd::kCompleted;
}

std::vector<std::wstring> ConditionalRunnerAL::TrueRuleIds() {
    std::vector<std::wstring> ids;
    for (const RuleEntry& entry : rules_) {
        bool state = false;
        if (entry.condition && entry.condition->GetState(&state, false) == 0 && state)
            ids.push_back(entry.rule->rule().id);
    }
    return ids;
}

std::shared_ptr<const std::vector<std::wstring>> ConditionalRunnerAL::TrueIds(
    const std::vector<LastRun::Installed>& trueEntries) {
    // Only the first rules are listed. A serial names one installed rule for
    // good: equal serials, equal ids.
    const size_t listed = std::min(trueEntries.size(), EvaluationHistory::kListedRules);
    const bool same =
        trueIds_ && trueSerials_.size() == listed &&
        std::equal(trueSerials_.begin(), trueSerials_.end(), trueEntries.begin(),
                   [](uint64_t serial, const LastRun::Installed& entry) { return entry.serial == serial; });
    if (same) return trueIds_;
    auto ids = std::make_shared<std::vector<std::wstring>>();
    ids->reserve(listed);
    trueSerials_.clear();
    for (size_t i = 0; i < listed; ++i) {
        ids->push_back((*trueEntries[i].rule)->rule().id);
        trueSerials_.push_back(trueEntries[i].serial);
    }
    trueIds_ = std::move(ids);
    return trueIds_;
}

void ConditionalRunnerAL::Remember(EvaluationRecord& record, const std::vector<std::wstring>& ids,
                                   NotRunReason reason) {
    record.notRunCount += ids.size();
    for (const std::wstring& id : ids) {
        if (record.notRun.size() >= EvaluationHistory::kListedRules) break;
        record.notRun.push_back(EvaluationRecord::RuleNotRun{id, reason});
    }
    history_.Record(std::move(record));
}

int32_t ConditionalRunnerAL::ReEvalRules() {
    logging::CallTrace trace(kReEvalRules);
    os::RecursiveMutexLock lock(lock_);
    // A stopping runner starts nothing new, and a disabled one runs nothing,
    // also when the pass was already waiting for the lock as it changed.
    if (stopping_) return 0;
    EvaluationRecord record;
    record.when = std::chrono::system_clock::now();
    record.triggers = signals_.TakeTriggers();
    if (isDisabled_) {
        logging::Log(logging::kDetail, kReEvalRules, L"the runner is disabled. Skip evaluation this time");
        Remember(record, TrueRuleIds(), NotRunReason::kRunnerDisabled);
        return 0;
    }
    if (transactionInProgress_) {
        logging::Log(logging::kDetail, kReEvalRules,
                     L"rules and methods transaction in progress. Skip evaluation this time");
        Remember(record, TrueRuleIds(), NotRunReason::kTransactionOpen);
        return 0;
    }
    if (record.triggers & static_cast<uint32_t>(EvaluationTrigger::kRetry)) retryAtMs_ = 0;
    const bool invalidateCache = invalidateCache_.exchange(false);
    logging::Log(logging::kDetail, kReEvalRules, L"Invalidate cache is %d.", invalidateCache ? 1 : 0);

    std::vector<std::wstring> unknownMethodSet;
    size_t unknownCount = 0;
    const std::vector<TrueRule> trueRules = CollectTrueRules(invalidateCache, unknownMethodSet, unknownCount);
    std::vector<LastRun::Installed> trueEntries;
    trueEntries.reserve(trueRules.size());
    for (const TrueRule& trueRule : trueRules) trueEntries.push_back(trueRule.installed);
    record.trueRules = TrueIds(trueEntries);
    record.trueRuleCount = trueEntries.size();
    record.notRunCount = unknownCount;
    for (const std::wstring& id : unknownMethodSet)
        record.notRun.push_back(EvaluationRecord::RuleNotRun{id, NotRunReason::kMethodSetUnknown});
    // The same rules true in the same order as at the last run: nothing to do.
    if (lastRun_.Matches(trueEntries)) {
        logging::Log(logging::kDetail, kReEvalRules, L"Nothing changed from the last run");
        record.trueRulesUnchanged = true;
        history_.Record(std::move(record));
        return 0;
    }

    // One run per method set, in order of first appearance, naming its rules.
    qv::List<MethodRunData> toRun;
    if (const int32_t status = runGroups_.Group(trueRules, toRun); status != 0) return status;
    if (const int32_t status = lastRun_.Set(trueEntries); status != 0) return status;
    // True on disk exactly while method sets may be half run.
    static_cast<void>(store_.SaveMethodsRunStarted(true));  // a failure is logged by the store

    bool leftUnapplied = false;
    if (RunAll(toRun, leftUnapplied) == PassEnd::kGivenUp) return 0;

    static_cast<void>(onMethodSetsRun_(toRun));  // subscribers report their own failures
    // The report was the last use of `toRun`: the responses move to the
    // history, the id lists back to the groups for the next pass.
    record.runs.reserve(toRun.Count());
    size_t index = 0;
    for (MethodRunData& run : toRun)
        record.runs.push_back(EvaluationRecord::MethodSetRun{run.methodSetId, runGroups_.HistoryIds(index++, run),
                                                             run.status, std::move(run.response)});
    runGroups_.Keep(toRun);
    if (leftUnapplied) {
        logging::Log(logging::kDetail, kReEvalRules,
                     L"There are some valid rules which were not applied; re-signal after 30s");
        if (const int32_t status =
                eventQueue_.Post([this] { signals_.RequestEvaluation(EvaluationTrigger::kRetry); }, kRetryDelayMs);
            status != 0) {
            logging::Log(logging::kError, kReEvalRules, L"cannot schedule the re-evaluation [%d]", status);
        } else {
            record.retryAt = record.when + std::chrono::milliseconds(kRetryDelayMs);
            retryAtMs_ =
                std::chrono::duration_cast<std::chrono::milliseconds>(record.retryAt->time_since_epoch()).count();
        }
    }
    history_.Record(std::move(record));
    // Saving failures are logged by the store and do not stop the pass.
    static_cast<void>(store_.SaveRules(RunnerStore::kLastRunPath, lastRun_.rules()));
    static_cast<void>(store_.SaveMethodsRunStarted(false));
    return 0;
}

Json::Value ConditionalRunnerAL::EvaluationStatus() {
    using std::chrono::system_clock;
    Json::Value status(Json::objectValue);
    const uint32_t pending = signals_.PendingTriggers();
    status["evaluationPending"] = pending != 0;
    Json::Value& triggers = status["pendingTriggers"] = Json::Value(Json::arrayValue);
    for (uint32_t bit = 1; bit != 0 && bit <= pending; bit <<= 1)
        if (pending & bit) triggers.append(TriggerName(static_cast<EvaluationTrigger>(bit)));
    const int64_t due = signals_.DueSeconds();
    status["evaluationDueAt"] = due == EvalWaits::kNothingDue
                                    ? Json::Value()
                                    : Json::Value(os::Iso8601Utc(system_clock::time_point(std::chrono::seconds(due))));
    const std::optional<EvaluationRecord> last = history_.Last();
    status["lastEvaluation"] = last ? Json::Value(os::Iso8601Utc(last->when)) : Json::Value();
    const int64_t retryAt = retryAtMs_.load();
    status["retryAt"] = retryAt == 0
                            ? Json::Value()
                            : Json::Value(os::Iso8601Utc(system_clock::time_point(std::chrono::milliseconds(retryAt))));
    status["transactionOpen"] = transactionInProgress_.load();
    return status;
}

}  // namespace Product::Integration::ConditionalRunner
