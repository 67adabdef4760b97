// The console's operations on rules and method sets: each keeps memory and
// the settings tree in step under the runner's lock, and asks for an
// evaluation where the change can alter what should run.
#include <algorithm>
#include <vector>

#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"
#include "runner/conditional_runner_al.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kSetRules = L"ConditionalRunnerAL::SetRules";
constexpr const wchar_t* kSetRulesLocked = L"ConditionalRunnerAL::_SetRules";
constexpr const wchar_t* kGetRules = L"ConditionalRunnerAL::GetRules";
constexpr const wchar_t* kSetMethod = L"ConditionalRunnerAL::SetMethod";
constexpr const wchar_t* kGetMethodSet = L"ConditionalRunnerAL::GetMethodSet";
constexpr const wchar_t* kDeleteMethodSet = L"ConditionalRunnerAL::DeleteMethodSet";
constexpr const wchar_t* kDeleteAllMethodSets = L"ConditionalRunnerAL::DeleteAllMethodSets";
constexpr const wchar_t* kGetMethodSetIds = L"ConditionalRunnerAL::GetMethodSetIds";
constexpr const wchar_t* kUpdateRulesAndMethods = L"ConditionalRunnerAL::UpdateRulesAndMethods";
constexpr const wchar_t* kUpdateMethods = L"ConditionalRunnerAL::UpdateMethods";
constexpr const wchar_t* kBeginTransaction = L"ConditionalRunnerAL::BeginTransaction";
constexpr const wchar_t* kEndTransaction = L"ConditionalRunnerAL::EndTransaction";
constexpr const wchar_t* kSetEnabled = L"ConditionalRunnerAL::SetEnabled";
constexpr const wchar_t* kIsEnabled = L"ConditionalRunnerAL::IsEnabled";
constexpr const wchar_t* kNavigateRulesById = L"ConditionalRunnerAL::NavigateRulesById";
}  // namespace

namespace {
// Whether a method-set id may name a settings node: "/" would make it a path,
// and a NUL would cut the name short, so that two ids share one node.
bool IsStorableMethodSetId(const std::wstring& id) {
    return (id.empty() || id.find(L'/') == std::wstring::npos) && id.find(L'\0') == std::wstring::npos;
}

// Builds the condition of rule number `index` into `condition`. A rule whose
// condition cannot be built is logged and reported in `errors`, and
// `condition` stays null; `remembered` takes that error unless the rule's
// type is only unknown to this module. Nonzero: `errors` refused the report.
int32_t BuildCondition(ConditionManager::IManager& manager, const Rule& rule, int32_t index,
                       qv::IList<RuleError>& errors, int32_t& remembered, ConditionManager::ConditionPtr& condition) {
    int32_t error = 0;
    condition = manager.CreateCondition(rule.matchIf, &error, static_cast<size_t>(index));
    if (condition) return 0;
    if (error == 0) error = qv::status::kFunctionFailed;
    logging::Log(logging::kWarning, kSetRulesLocked, L"Cannot create condition %s, nret = %i", rule.id.c_str(), error);
    if (const int32_t status = errors.AddTail(RuleError{index, error}); status != 0) return status;
    if (error != qv::status::kCallNotImplemented) remembered = error;
    return 0;
}
}  // namespace

int32_t ConditionalRunnerAL::SetRulesLocked(NewRules rules, qv::IList<RuleError>& errors, int32_t& remembered) {
    logging::CallTrace trace(kSetRulesLocked);
    os::RecursiveMutexLock lock(lock_);
    remembered = 0;
    if (!conditionManager_) return qv::status::kDependencyNotFound;
    // Every condition is built first. A rule whose condition cannot be built
    // is left out and reported; a type this module does not know is reported
    // only, every other failure is the operation's too (the last one wins).
    std::list<RuleEntry> entries;
    std::vector<RulePtr> kept;  // the records saved, shared with `entries`
    kept.reserve(rules.copyFrom ? rules.copyFrom->Count() : rules.takeFrom->Count());
    int32_t index = 0;
    // Builds the condition of rule number `index`; `keep` makes its record.
    auto add = [&](const Rule& rule, auto keep) -> int32_t {
        ConditionManager::ConditionPtr condition;
        if (const int32_t status = BuildCondition(*conditionManager_.get(), rule, index, errors, remembered, condition))
            return status;
        if (condition) {
            entries.push_back(RuleEntry{keep(), std::move(condition)});
            kept.push_back(entries.back().rule);
        }
        return 0;
    };
    if (rules.copyFrom) {
        for (qv::ConstListEnumPtr<Rule> e(rules.copyFrom->CreateConstEnum()); e->IsValid(); e->Next(), ++index) {
            const Rule& rule = *e->Current();
            if (const int32_t status = add(rule, [&] { return std::make_shared<const RuleRecord>(rule); }))
                return status;
        }
    } else {
        for (qv::ListEnumPtr<Rule> e(rules.takeFrom->CreateEnum()); e->IsValid(); e->Next(), ++index) {
            Rule& rule = *e->Current();
            if (const int32_t status = add(rule, [&] { return std::make_shared<const RuleRecord>(std::move(rule)); }))
                return status;
        }
    }
    // Stored first: when that fails the old rules stay, in memory and stored.
    if (const int32_t status = store_.SaveRules(RunnerStore::kRulesPath, kept); status != 0) {
        logging::Log(logging::kError, kSetRulesLocked, L"Cannot save rules nret = %i", status);
        return status;
    }
    DetachFrom(rules_);
    rules_.swap(entries);
    Install(rules_);
    invalidateCache_ = true;  // new trees answer from their sources at the next pass
    return 0;                 // the old conditions go with `entries`
}

int32_t ConditionalRunnerAL::SetRules(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) {
    return SetRules(NewRules{.copyFrom = &rules}, errors);
}

int32_t ConditionalRunnerAL::TakeRules(qv::IList<Rule>& rules, qv::IList<RuleError>& errors) {
    return SetRules(NewRules{.takeFrom = &rules}, errors);
}

int32_t ConditionalRunnerAL::SetRules(NewRules rules, qv::IList<RuleError>& errors) {
    logging::CallTrace trace(kSetRules);
    os::RecursiveMutexLock lock(lock_);
    int32_t remembered = 0;
    const int32_t status = SetRulesLocked(rules, errors, remembered);
    if (!transactionInProgress_) SignalEvaluation();
    return status != 0 ? status : remembered;
}

int32_t ConditionalRunnerAL::GetRules(qv::IList<Rule>& rules) {
    logging::CallTrace trace(kGetRules);
    os::RecursiveMutexLock lock(lock_);
    for (const RuleEntry& entry : rules_)
        if (const int32_t status = rules.AddTail(entry.rule->rule()); status != 0) return status;
    return 0;
}

void ConditionalRunnerAL::SignalEvaluation() {
    os::RecursiveMutexLock lock(lock_);
    signals_.RequestEvaluation(EvaluationTrigger::kConsole);
    if (isDisabled_) {
        // A console update resumes a disabled runner, in memory only: the
        // stored flag keeps what the console last set with SetEnabled.
        isDisabled_ = false;
        signals_.Awake();
    }
}

int32_t ConditionalRunnerAL::SaveLastRun() { return store_.SaveRules(RunnerStore::kLastRunPath, lastRun_.rules()); }

int32_t ConditionalRunnerAL::SetMethod(const Method& methodSet, bool signal) {
    logging::CallTrace trace(kSetMethod);
    os::RecursiveMutexLock lock(lock_);
    if (!IsStorableMethodSetId(methodSet.id)) return qv::status::kInvalidParameter;
    // A changed method set runs again at the next pass in which one of its
    // rules is true, though the rules themselves did not change. The shorter
    // last run is stored before the method set, so that a crash after this
    // command never keeps the old one: at worst a rule runs once more.
    LastRun shortened = lastRun_;
    const bool lastRunChanged = shortened.RemoveMethodSet(methodSet.id);
    if (lastRunChanged) {
        if (const int32_t status = store_.SaveRules(RunnerStore::kLastRunPath, shortened.rules()); status != 0)
            return status;
    }
    if (const int32_t status = store_.SaveMethod(methodSet); status != 0) {
        if (lastRunChanged) static_cast<void>(SaveLastRun());  // the stored copy back in step, if it can be
        return status;
    }
    methodSets_[methodSet.id] = methodSet;
    ++methodSetsVersion_;
    lastRun_ = std::move(shortened);
    if (signal) SignalEvaluation();
    return 0;
}

int32_t ConditionalRunnerAL::SetMethodsLocked(const qv::IList<Method>& methodSets) {
    int32_t first = 0;
    for (qv::ConstListEnumPtr<Method> e(methodSets.CreateConstEnum()); e->IsValid(); e->Next()) {
        const int32_t status = SetMethod(*e->Current(), false);
        if (first == 0) first = status;
    }
    return first;
}

int32_t ConditionalRunnerAL::GetMethodSet(const std::wstring& id, Method& methodSet) {
    logging::CallTrace trace(kGetMethodSet);
    os::RecursiveMutexLock lock(lock_);
    if (methodSets_.find(id) == methodSets_.end()) return qv::status::kNotFound;
    return store_.ReadMethod(id, methodSet);
}

int32_t ConditionalRunnerAL::DeleteMethodSet(const std::wstring& id) {
    logging::CallTrace trace(kDeleteMethodSet);
    os::RecursiveMutexLock lock(lock_);
    // Such an id was never stored, and its node name would be another's.
    if (!IsStorableMethodSetId(id)) return qv::status::kInvalidParameter;
    if (const int32_t status = store_.DeleteMethod(id); status != 0) return status;
    methodSets_.erase(id);
    ++methodSetsVersion_;
    return 0;
}

int32_t ConditionalRunnerAL::DeleteAllMethodSets() {
    logging::CallTrace trace(kDeleteAllMethodSets);
    os::RecursiveMutexLock lock(lock_);
    std::vector<std::wstring> removed;
    if (const int32_t status = store_.DeleteAllMethods(removed); status != 0) return status;
    // Memory follows the store: a set whose node could not be removed stays.
    std::sort(removed.begin(), removed.end());
    std::erase_if(methodSets_, [&](const auto& entry) {
        return std::binary_search(removed.begin(), removed.end(), RunnerStore::MethodNodeName(entry.first));
    });
    ++methodSetsVersion_;
    return 0;
}

int32_t ConditionalRunnerAL::GetMethodSetIds(qv::IList<std::wstring>& ids) {
    logging::CallTrace trace(kGetMethodSetIds);
    os::RecursiveMutexLock lock(lock_);
    for (const auto& [id, methodSet] : methodSets_)
        if (const int32_t status = ids.AddTail(id); status != 0) return status;
    return 0;
}

int32_t ConditionalRunnerAL::UpdateRulesAndMethods(const qv::IList<Rule>& rules, const qv::IList<Method>& methodSets,
                                                   qv::IList<RuleError>& errors) {
    logging::CallTrace trace(kUpdateRulesAndMethods);
    os::RecursiveMutexLock lock(lock_);
    int32_t remembered = 0;
    int32_t status = SetRulesLocked(NewRules{.copyFrom = &rules}, errors, remembered);
    // Rules left out do not hold back the method sets; rules that could not
    // be saved leave everything as it was.
    if (status == 0) {
        const int32_t methods = SetMethodsLocked(methodSets);
        status = remembered != 0 ? remembered : methods;
    }
    if (!transactionInProgress_) SignalEvaluation();
    return status;
}

int32_t ConditionalRunnerAL::UpdateRulesAndMethods(const qv::IList<Rule>& rules, const qv::IList<Method>& methodSets) {
    qv::List<RuleError> errors;
    return UpdateRulesAndMethods(rules, methodSets, errors);
}

int32_t ConditionalRunnerAL::UpdateMethods(const qv::IList<Method>& methodSets) {
    logging::CallTrace trace(kUpdateMethods);
    os::RecursiveMutexLock lock(lock_);
    const int32_t status = SetMethodsLocked(methodSets);
    if (!transactionInProgress_) SignalEvaluation();
    return status;
}

int32_t ConditionalRunnerAL::BeginTransaction() {
    logging::CallTrace trace(kBeginTransaction);
    os::RecursiveMutexLock lock(lock_);
    transactionInProgress_ = true;
    return 0;
}

int32_t ConditionalRunnerAL::EndTransaction() {
    logging::CallTrace trace(kEndTransaction);
    os::RecursiveMutexLock lock(lock_);
    transactionInProgress_ = false;
    SignalEvaluation();
    return 0;
}

int32_t ConditionalRunnerAL::SetEnabled(bool enabled) {
    logging::CallTrace trace(kSetEnabled);
    os::RecursiveMutexLock lock(lock_);
    // Stored before memory changes: a save that fails leaves the runner as
    // it was, and a crash right after the answer keeps what it told.
    if (enabled && isDisabled_) {
        // The last run has been empty since the disabling; the stored copy is
        // made so too, in case a pass saved one meanwhile.
        if (const int32_t status = SaveLastRun(); status != 0) return status;
        if (const int32_t status = store_.SaveEnabled(true); status != 0) return status;
        signals_.RequestEvaluation(EvaluationTrigger::kEnabled);
        isDisabled_ = false;
        signals_.Awake();
        return 0;
    }
    if (!enabled && !isDisabled_) {
        // Every true rule runs again after the next enabling.
        if (const int32_t status = store_.SaveRules(RunnerStore::kLastRunPath, std::vector<RulePtr>()); status != 0)
            return status;
        if (const int32_t status = store_.SaveEnabled(false); status != 0) {
            static_cast<void>(SaveLastRun());  // the stored copy back in step, if it can be
            return status;
        }
        lastRun_.Clear();
        isDisabled_ = true;
        signals_.Pause();
        return 0;
    }
    return 0;
}

int32_t ConditionalRunnerAL::IsEnabled(bool& enabled) {
    logging::CallTrace trace(kIsEnabled);
    os::RecursiveMutexLock lock(lock_);
    enabled = !isDisabled_;
    return 0;
}

int32_t ConditionalRunnerAL::NavigateRulesById(const std::wstring& id, IRuleVisitor& visitor) {
    logging::CallTrace trace(kNavigateRulesById);
    os::RecursiveMutexLock lock(lock_);
    for (const RuleEntry& entry : rules_) {
        if (entry.rule->rule().id != id) continue;
        visitor.Visit(entry.rule->rule());
        return 0;
    }
    return qv::status::kNotFound;
}

}  // namespace Product::Integration::ConditionalRunner
