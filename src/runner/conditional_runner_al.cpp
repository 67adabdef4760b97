// The runner's life: its dependencies, start-up and shut-down, the evaluation
// thread and the callbacks that wake it.
#include "runner/conditional_runner_al.h"

#include "os/thread_name.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "plugin/module_names.h"
#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kInit = L"ConditionalRunnerAL::Init";
constexpr const wchar_t* kUninit = L"ConditionalRunnerAL::Uninit";
constexpr const wchar_t* kStart = L"ConditionalRunnerAL::Start";
constexpr const wchar_t* kStop = L"ConditionalRunnerAL::Stop";
constexpr const wchar_t* kLoadSettings = L"ConditionalRunnerAL::LoadSettings";
constexpr const wchar_t* kEvalThread = L"ConditionalRunnerAL::EvalThread";
constexpr const wchar_t* kOnConnectionEvent = L"ConditionalRunnerAL::OnConnectionEvent";
constexpr const wchar_t* kGetSettings = L"ConditionalRunnerAL::GetSettings";
constexpr const wchar_t* kSetSettings = L"ConditionalRunnerAL::SetSettings";
constexpr const wchar_t* kSubscribe = L"ConditionalRunnerAL::Subscribe";
constexpr const wchar_t* kUnsubscribe = L"ConditionalRunnerAL::Unsubscribe";
}  // namespace

ConditionalRunnerAL::ConditionalRunnerAL()
    : settingsPlugin_(IEPSettings::kPluginName),
      conditionManager_(qv::names::kConditionManager),
      policyRunner_(EnterpriseIntegration::IRunPolicy::kPluginName),
      groups_(Framework::IGroupsManager::kPluginName) {}

ConditionalRunnerAL::~ConditionalRunnerAL() {
    // A host that skipped Stop or Uninit still gets its thread ended and its
    // plug-ins back; nothing is left to report to.
    if (evalThread_.joinable()) static_cast<void>(Stop());
    static_cast<void>(Uninit());
}

void* ConditionalRunnerAL::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid))
        return static_cast<IQvBaseInterface*>(static_cast<IServPlugin*>(this));
    if (qv::GuidEquals(requested, IServPlugin::iid)) return static_cast<IServPlugin*>(this);
    if (qv::GuidEquals(requested, IConditionalRunner::iid)) return static_cast<IConditionalRunner*>(this);
    if (qv::GuidEquals(requested, IConditionalRunnerExtensions::iid))
        return static_cast<IConditionalRunnerExtensions*>(this);
    if (qv::GuidEquals(requested, IConditionalRunnerDiagnostics::iid))
        return static_cast<IConditionalRunnerDiagnostics*>(this);
    return nullptr;
}

int32_t ConditionalRunnerAL::Init(IServMain* main) {
    logging::CallTrace trace(kInit);
    IComponentManager* components = main ? main->GetComponentManager() : nullptr;
    if (!settingsPlugin_.GetPlugin(components)) {
        logging::Log(logging::kError, kInit, L"EPSettings plugin not found. Cannot continue.");
        return qv::status::kDependencyNotFound;
    }
    {
        os::RecursiveMutexLock lock(lock_);
        store_ = RunnerStore(settingsPlugin_.get());
    }
    if (!conditionManager_.GetPlugin(components)) {
        logging::Log(logging::kError, kInit, L"ConditionManager plugin not found. Cannot continue.");
        return qv::status::kDependencyNotFound;
    }
    if (!policyRunner_.GetPlugin(components)) {
        logging::Log(logging::kError, kInit, L"PolicyRunner plugin not found. Cannot continue.");
        return qv::status::kDependencyNotFound;
    }
    ReleaseServiceControls();
    std::vector<void*> members;
    if (!groups_.GetPlugin(components) ||
        groups_->GetGroupMembers(kServiceControlGroup, EndpointService::IControl::iid, members) != 0) {
        logging::Log(logging::kError, kInit, L"ServiceControl plugin group init failed.");
        return qv::status::kDependencyNotFound;
    }
    for (void* member : members) serviceControls_.push_back(static_cast<EndpointService::IControl*>(member));
    eventQueue_.SetFactory(components->GetEventQueueFactory());
    if (const int32_t status = ConditionManager::OpenQueue(eventQueue_, kQueueName, kInit); status != 0) return status;
    return 0;
}

void ConditionalRunnerAL::ReleaseServiceControls() {
    if (!serviceControls_.empty() || groups_) {
        if (groups_) groups_->ReleaseGroupMembers(kServiceControlGroup);
        serviceControls_.clear();
    }
}

int32_t ConditionalRunnerAL::Uninit() {
    logging::CallTrace trace(kUninit);
    // The retry item may not run once the runner is gone.
    eventQueue_.Close();
    std::list<RuleEntry> discarded;
    {
        os::RecursiveMutexLock lock(lock_);
        DetachFrom(rules_);
        discarded.swap(rules_);
        store_ = RunnerStore(nullptr);
    }
    settingsPlugin_.Release();
    discarded.clear();  // the conditions, before their manager is given back
    conditionManager_.Release();
    policyRunner_.Release();
    ReleaseServiceControls();
    groups_.Release();
    return 0;
}

int32_t ConditionalRunnerAL::LoadSettings() {
    logging::CallTrace trace(kLoadSettings);
    os::RecursiveMutexLock lock(lock_);
    if (!conditionManager_) {
        logging::Log(logging::kError, kLoadSettings, L"Invalid ConditionManager ");
        return qv::status::kDependencyNotFound;
    }
    qv::List<Rule> rules;
    if (const int32_t status = store_.ReadRules(RunnerStore::kRulesPath, rules); status != 0) return status;
    // A store without method sets yet is no failure.
    static_cast<void>(store_.ReadMethods(methodSets_));
    ++methodSetsVersion_;
    std::list<RuleEntry> entries;
    size_t index = 0;
    for (qv::ListEnumPtr<Rule> e(rules.CreateEnum()); e->IsValid(); e->Next(), ++index) {
        Rule* rule = e->Current();
        int32_t error = 0;
        ConditionManager::ConditionPtr condition = conditionManager_->CreateCondition(rule->matchIf, &error, index);
        if (!condition) {
            // A partial set of rules would run method sets the console never
            // meant to run alone: start with none.
            logging::Log(logging::kError, kLoadSettings, L"Cannot create condition %s; cleaning all", rule->id.c_str());
            DetachFrom(rules_);
            rules_.clear();
            return error != 0 ? error : qv::status::kFunctionFailed;
        }
        entries.push_back(RuleEntry{std::make_shared<const RuleRecord>(std::move(*rule)), std::move(condition)});
    }
    DetachFrom(rules_);
    rules_.swap(entries);
    Install(rules_);
    return 0;
}

int32_t ConditionalRunnerAL::Start() {
    logging::CallTrace trace(kStart);
    if (const int32_t status = LoadSettings(); status != 0)
        logging::Log(logging::kError, kStart, L"Cannot load rules; err = %i", status);
    else
        signals_.RequestEvaluation(EvaluationTrigger::kStart);  // a first evaluation
    {
        os::RecursiveMutexLock lock(lock_);
        qv::List<Rule> lastRun;
        if (const int32_t status = store_.ReadLastRunRules(lastRun); status != 0) return status;
        std::vector<RulePtr> installed;
        installed.reserve(rules_.size());
        for (const RuleEntry& entry : rules_) installed.push_back(entry.rule);
        if (const int32_t status = lastRun_.Restore(lastRun, installed); status != 0) return status;
        bool enabled = true;
        if (store_.ReadEnabled(enabled) == 0 && !enabled) {
            lastRun_.Clear();
            isDisabled_ = true;
            signals_.Pause();
        }
    }
    if (evalThread_.joinable()) evalThread_.join();  // a second Start without a Stop between
    // What the last Stop left behind must not end the new thread's first run.
    stopping_ = false;
    giveUpRun_.Reset();
    evalThreadEnded_.Reset();
    signals_.Rearm();
    try {
        evalThread_ = std::thread([this] {
            os::SetCurrentThreadName("cr:eval");
            RunEvaluationThread();
        });
    } catch (const std::system_error&) {
        return qv::status::kNotReady;
    }
    for (EndpointService::IControl* control : serviceControls_) {
        if (const int32_t status = control->RegisterControl(this); status != 0) {
            logging::Log(logging::kError, kStart, L"Register to serviceControl plugin failed with error %d.", status);
            return status;
        }
    }
    return 0;
}

void ConditionalRunnerAL::RunEvaluationThread() {
    if (!policyRunner_ || !signals_.Valid()) {
        logging::Log(logging::kError, kEvalThread, L"EvalThread : Invalid PolicyRunner");
    } else {
        EvaluationLoop loop(signals_, postpone_, [this] { static_cast<void>(ReEvalRules()); });
        static_cast<void>(loop.Run());  // 0: it ends on the stop signal only
    }
    evalThreadEnded_.Set();
}

int32_t ConditionalRunnerAL::Stop() {
    logging::CallTrace trace(kStop);
    stopping_ = true;
    signals_.RequestStop();
    if (evalThread_.joinable()) {
        if (!evalThreadEnded_.Wait(stopWaitTimeoutMs_)) {
            logging::Log(logging::kError, kStop, L"Cannot stop evaluation thread");
            // A method-set run that has not returned is given up: the pass
            // ends at once and the thread with it.
            giveUpRun_.Set();
        }
        evalThread_.join();
    }
    bool enabled = true;
    {
        os::RecursiveMutexLock lock(lock_);
        DetachFrom(rules_);
        enabled = !isDisabled_;
    }
    for (EndpointService::IControl* control : serviceControls_)
        static_cast<void>(control->UnregisterControl(this));  // refused only when never registered
    os::RecursiveMutexLock lock(lock_);
    return store_.SaveEnabled(enabled);
}

void ConditionalRunnerAL::Install(std::list<RuleEntry>& entries) {
    for (RuleEntry& entry : entries) entry.serial = nextSerial_++;
    AttachTo(entries);
}

void ConditionalRunnerAL::AttachTo(std::list<RuleEntry>& entries) {
    for (RuleEntry& entry : entries)
        if (entry.condition) static_cast<void>(entry.condition->Subscribe(this));  // fresh conditions: cannot refuse
}

void ConditionalRunnerAL::DetachFrom(std::list<RuleEntry>& entries) {
    for (RuleEntry& entry : entries)
        if (entry.condition) static_cast<void>(entry.condition->Unsubscribe(this));  // refused when not attached
}

int32_t ConditionalRunnerAL::OnStateChanged(bool, size_t) {
    signals_.RequestEvaluation(EvaluationTrigger::kConditionChange);
    return 0;
}

void ConditionalRunnerAL::OnConnectionEvent(int32_t event) {
    if (event != EndpointService::kServiceConnected) return;
    logging::Log(logging::kDetail, kOnConnectionEvent,
                 L"Service connected. Evaluating rules with invalidate cache true.");
    invalidateCache_ = true;
    signals_.RequestEvaluation(EvaluationTrigger::kServiceConnected);
}

int32_t ConditionalRunnerAL::RegisterControl(EndpointService::IControl*) { return qv::status::kNotSupported; }
int32_t ConditionalRunnerAL::UnregisterControl(EndpointService::IControl*) { return qv::status::kNotSupported; }

int32_t ConditionalRunnerAL::GetSettings(Settings& settings) {
    logging::CallTrace trace(kGetSettings);
    os::RecursiveMutexLock lock(lock_);
    settings.minEvalTime = postpone_.minEvalTime;
    settings.maxPostponeTime = postpone_.maxPostponeTime;
    return 0;
}

int32_t ConditionalRunnerAL::SetSettings(const Settings& settings) {
    logging::CallTrace trace(kSetSettings);
    os::RecursiveMutexLock lock(lock_);
    postpone_.minEvalTime = settings.minEvalTime;
    postpone_.maxPostponeTime = settings.maxPostponeTime;
    return 0;
}

int32_t ConditionalRunnerAL::Subscribe(IEvents* listener, int32_t) {
    logging::CallTrace trace(kSubscribe);
    if (!listener) return qv::status::kInvalidParameter;
    return subscribers_.Add(listener);
}

int32_t ConditionalRunnerAL::Unsubscribe(IEvents* listener, int32_t) {
    logging::CallTrace trace(kUnsubscribe);
    if (!listener) return qv::status::kInvalidParameter;
    return subscribers_.Remove(listener);
}

}  // namespace Product::Integration::ConditionalRunner
