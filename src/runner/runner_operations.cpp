// The console's operations on rules and method sets: each keeps memory and
// the settings tree in step under the runner's lock, and asks for an
// evaluation where the change can alter what should run.
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

int32_t ConditionalRunnerAL::SetRulesLocked(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) {
    logging::CallTrace trace(kSetRulesLocked);
    std::lock_guard lock(lock_);
    if (!conditionManager_) return qv::status::kDependencyNotFound;
    // Every condition is built first. A rule whose condition cannot be built
    // is left out and reported; a type this module does not know is reported
    // only, every other failure is the operation's too (the last one wins).
    std::list<RuleEntry> entries;
    qv::List<Rule> kept;
    int32_t remembered = 0;
    int32_t index = 0;
    for (qv::ConstListEnumPtr<Rule> e(rules.CreateConstEnum()); e->IsValid(); e->Next(), ++index) {
        const Rule& rule = *e->Current();
        int32_t error = 0;
        ConditionManager::ConditionPtr condition =
            conditionManager_->CreateCondition(rule.matchIf, &error, static_cast<size_t>(index));
        if (!condition) {
            if (error == 0) error = qv::status::kFunctionFailed;
            logging::Log(logging::kWarning, kSetRulesLocked, L"Cannot create condition %s, nret = %i", rule.id.c_str(),
                         error);
            if (const int32_t status = errors.AddTail(RuleError{index, error}); status != 0) return status;
            if (error != qv::status::kCallNotImplemented) remembered = error;
            continue;
        }
        if (const int32_t status = kept.AddTail(rule); status != 0) return status;
        entries.push_back(RuleEntry{std::make_shared<const RuleRecord>(rule), std::move(condition)});
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
    return remembered;        // the old conditions go with `entries`
}

int32_t ConditionalRunnerAL::SetRules(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) {
    logging::CallTrace trace(kSetRules);
    std::lock_guard lock(lock_);
    const int32_t status = SetRulesLocked(rules, errors);
    if (!transactionInProgress_) SignalEvaluation();
    return status;
}

int32_t ConditionalRunnerAL::GetRules(qv::IList<Rule>& rules) {
    logging::CallTrace trace(kGetRules);
    std::lock_guard lock(lock_);
    for (const RuleEntry& entry : rules_)
        if (const int32_t status = rules.AddTail(entry.rule->rule); status != 0) return status;
    return 0;
}

void ConditionalRunnerAL::SignalEvaluation() {
    std::lock_guard lock(lock_);
    signals_.RequestEvaluation();
    if (isDisabled_) {
        // A console update resumes a disabled runner, in memory only: the
        // stored flag keeps what the console last set with SetEnabled.
        isDisabled_ = false;
        signals_.Awake();
    }
}

int32_t ConditionalRunnerAL::SetMethod(const Method& methodSet, bool signal) {
    logging::CallTrace trace(kSetMethod);
    std::lock_guard lock(lock_);
    // The id becomes part of a settings node's name.
    if (!methodSet.id.empty() && methodSet.id.find(L'/') != std::wstring::npos) return qv::status::kInvalidParameter;
    if (const int32_t status = store_.SaveMethod(methodSet); status != 0) return status;
    methodSets_[methodSet.id] = methodSet;
    ++methodSetsVersion_;
    // A changed method set runs again at the next pass in which one of its
    // rules is true, though the rules themselves did not change.
    lastRun_.RemoveMethodSet(methodSet.id);
    if (signal) SignalEvaluation();
    return 0;
}

int32_t ConditionalRunnerAL::GetMethodSet(const std::wstring& id, Method& methodSet) {
    logging::CallTrace trace(kGetMethodSet);
    std::lock_guard lock(lock_);
    if (methodSets_.find(id) == methodSets_.end()) return qv::status::kNotFound;
    return store_.ReadMethod(id, methodSet);
}

int32_t ConditionalRunnerAL::DeleteMethodSet(const std::wstring& id) {
    logging::CallTrace trace(kDeleteMethodSet);
    std::lock_guard lock(lock_);
    if (const int32_t status = store_.DeleteMethod(id); status != 0) return status;
    methodSets_.erase(id);
    ++methodSetsVersion_;
    return 0;
}

int32_t ConditionalRunnerAL::DeleteAllMethodSets() {
    logging::CallTrace trace(kDeleteAllMethodSets);
    std::lock_guard lock(lock_);
    if (const int32_t status = store_.DeleteAllMethods(); status != 0) return status;
    methodSets_.clear();
    ++methodSetsVersion_;
    return 0;
}

int32_t ConditionalRunnerAL::GetMethodSetIds(qv::IList<std::wstring>& ids) {
    logging::CallTrace trace(kGetMethodSetIds);
    std::lock_guard lock(lock_);
    for (const auto& [id, methodSet] : methodSets_)
        if (const int32_t status = ids.AddTail(id); status != 0) return status;
    return 0;
}

int32_t ConditionalRunnerAL::UpdateRulesAndMethods(const qv::IList<Rule>& rules, const qv::IList<Method>& methodSets) {
    logging::CallTrace trace(kUpdateRulesAndMethods);
    std::lock_guard lock(lock_);
    qv::List<RuleError> errors;
    int32_t status = SetRulesLocked(rules, errors);
    for (qv::ConstListEnumPtr<Method> e(methodSets.CreateConstEnum()); status == 0 && e->IsValid(); e->Next())
        status = SetMethod(*e->Current(), false);
    if (!transactionInProgress_) SignalEvaluation();
    return status;
}

int32_t ConditionalRunnerAL::UpdateMethods(const qv::IList<Method>& methodSets) {
    logging::CallTrace trace(kUpdateMethods);
    std::lock_guard lock(lock_);
    int32_t status = 0;
    for (qv::ConstListEnumPtr<Method> e(methodSets.CreateConstEnum()); status == 0 && e->IsValid(); e->Next())
        status = SetMethod(*e->Current(), false);
    if (!transactionInProgress_) SignalEvaluation();
    return status;
}

int32_t ConditionalRunnerAL::BeginTransaction() {
    logging::CallTrace trace(kBeginTransaction);
    std::lock_guard lock(lock_);
    transactionInProgress_ = true;
    return 0;
}

int32_t ConditionalRunnerAL::EndTransaction() {
    logging::CallTrace trace(kEndTransaction);
    std::lock_guard lock(lock_);
    transactionInProgress_ = false;
    SignalEvaluation();
    return 0;
}

int32_t ConditionalRunnerAL::SetEnabled(bool enabled) {
    logging::CallTrace trace(kSetEnabled);
    std::lock_guard lock(lock_);
    if (enabled && isDisabled_) {
        signals_.RequestEvaluation();
        isDisabled_ = false;
        const int32_t status = store_.SaveEnabled(true);
        signals_.Awake();
        return status;
    }
    if (!enabled && !isDisabled_) {
        // Every true rule runs again after the next enabling.
        lastRun_.Clear();
        isDisabled_ = true;
        const int32_t status = store_.SaveEnabled(false);
        signals_.Pause();
        return status;
    }
    return 0;
}

int32_t ConditionalRunnerAL::IsEnabled(bool& enabled) {
    logging::CallTrace trace(kIsEnabled);
    std::lock_guard lock(lock_);
    enabled = !isDisabled_;
    return 0;
}

int32_t ConditionalRunnerAL::NavigateRulesById(const std::wstring& id, IRuleVisitor& visitor) {
    logging::CallTrace trace(kNavigateRulesById);
    std::lock_guard lock(lock_);
    for (const RuleEntry& entry : rules_) {
        if (entry.rule->rule.id != id) continue;
        visitor.Visit(entry.rule->rule);
        return 0;
    }
    return qv::status::kNotFound;
}

}  // namespace Product::Integration::ConditionalRunner
