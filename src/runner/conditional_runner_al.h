#pragma once
// The runner: owns the rules with their live conditions, the method sets and
// the record of the last run; evaluates the rules on its own thread when a
// condition changes, runs the method sets of the rules that became true
// through the host's policy runner, reports each pass to its subscribers and
// keeps its state in the host's settings tree. Exported to the host as
// "Product.ConditionalRunner", a new object per request.
//
// Thread rules: the host calls Init, Start, Stop, Uninit and the console
// operations on its own threads; every console operation and every
// evaluation holds the runner's (re-entrant) lock for its whole run, method
// set runs included. Condition notifications and service events come on any
// thread and only raise a signal or a flag. Subscribers are called on the
// evaluation thread with the lock held: they must not call back into the
// runner and wait for another thread that does.
//
// Stop waits for the evaluation thread up to its time limit; when a
// method-set run has not returned by then, the pass gives the run up (the
// run goes on alone, touching nothing of the runner, see PolicyRun) and the
// thread ends, so that Stop, Uninit and the runner's destruction never wait
// for the policy runner. A thread held elsewhere (a subscriber that does not
// return) is still waited for.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "conditions/condition.h"
#include "conditions/condition_queue.h"
#include "conditions/manager_interface.h"
#include "model/conditional_runner.h"
#include "os/thread_annotations.h"
#include "plugin/event_adaptor.h"
#include "plugin/module_names.h"
#include "plugin/serv_plugin.h"
#include "qv/host_services.h"
#include "qv/serv_plugin.h"
#include "runner/evaluation_loop.h"
#include "runner/host_plugins.h"
#include "runner/last_run.h"
#include "runner/run_groups.h"
#include "runner/run_requests.h"
#include "runner/runner_signals.h"
#include "runner/runner_store.h"

namespace Product::Integration::ConditionalRunner {

class ConditionalRunnerAL final : public IServPlugin,
                                  public IConditionalRunnerLocal,
                                  public ConditionManager::IConditionEvent,
                                  public EndpointService::IControl,
                                  public IConditionalRunnerExtensions,
                                  public IConditionalRunnerDiagnostics {
public:
    static constexpr const wchar_t* kServiceControlGroup = qv::names::kServiceControlGroup;
    static constexpr const wchar_t* kQueueName = L"qv::EasyEventQueue";
    static constexpr uint32_t kRetryDelayMs = 30000;
    static constexpr uint32_t kStopWaitTimeoutMs = 180000;

    ConditionalRunnerAL();
    ~ConditionalRunnerAL() override;
    ConditionalRunnerAL(const ConditionalRunnerAL&) = delete;
    ConditionalRunnerAL& operator=(const ConditionalRunnerAL&) = delete;

    // The plug-in interface and IConditionalRunner (the agent's view).
    void* QueryInterface(const GUID& iid) override;

    // Obtains the settings store, the condition manager, the policy runner
    // and the service-control group, and opens the runner's event queue.
    // A missing one ends Init with its message and the lookup's status.
    [[nodiscard]] int32_t Init(IServMain* main) override;
    // Stops the queue and gives back everything Init obtained; the rules'
    // conditions are freed before the condition manager is given back.
    [[nodiscard]] int32_t Uninit() override;
    // Loads the stored state, starts the evaluation thread and registers with
    // the service controls. kNotReady when the thread cannot start.
    [[nodiscard]] int32_t Start() override;
    // Ends the thread (waiting up to the stop time limit, kStopWaitTimeoutMs
    // unless set otherwise, then giving up a method-set run that did not
    // return), detaches from the conditions and the service controls, and
    // saves the enabled flag.
    [[nodiscard]] int32_t Stop() override;

    // Console operations.
    [[nodiscard]] int32_t GetSettings(Settings& settings) override;
    [[nodiscard]] int32_t SetSettings(const Settings& settings) override;
    [[nodiscard]] int32_t BeginTransaction() override;
    [[nodiscard]] int32_t EndTransaction() override;
    [[nodiscard]] int32_t SetRules(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) override;
    [[nodiscard]] int32_t GetRules(qv::IList<Rule>& rules) override;
    [[nodiscard]] int32_t SetMethod(const Method& methodSet, bool signal) override;
    [[nodiscard]] int32_t GetMethodSet(const std::wstring& id, Method& methodSet) override;
    [[nodiscard]] int32_t DeleteMethodSet(const std::wstring& id) override;
    [[nodiscard]] int32_t DeleteAllMethodSets() override;
    [[nodiscard]] int32_t GetMethodSetIds(qv::IList<std::wstring>& ids) override;
    [[nodiscard]] int32_t UpdateRulesAndMethods(const qv::IList<Rule>& rules,
                                                const qv::IList<Method>& methodSets) override;
    [[nodiscard]] int32_t UpdateMethods(const qv::IList<Method>& methodSets) override;
    [[nodiscard]] int32_t SetEnabled(bool enabled) override;
    [[nodiscard]] int32_t IsEnabled(bool& enabled) override;
    [[nodiscard]] int32_t Subscribe(IEvents* listener, int32_t flags) override;
    [[nodiscard]] int32_t Unsubscribe(IEvents* listener, int32_t flags) override;
    [[nodiscard]] int32_t NavigateRulesById(const std::wstring& id, IRuleVisitor& visitor) override;

    // The module's own extensions.
    [[nodiscard]] int32_t UpdateRulesAndMethods(const qv::IList<Rule>& rules, const qv::IList<Method>& methodSets,
                                                qv::IList<RuleError>& errors) override;
    [[nodiscard]] int32_t TakeRules(qv::IList<Rule>& rules, qv::IList<RuleError>& errors) override;
    void SetStopWaitTimeout(uint32_t milliseconds) override { stopWaitTimeoutMs_ = milliseconds; }
    // Diagnostics, from any thread without the runner's lock: they read
    // only the history (its own mutex), the signals and atomics.
    [[nodiscard]] Json::Value History() override { return history_.ToJson(); }
    [[nodiscard]] Json::Value EvaluationStatus() override;

    // A rule's condition changed: asks for an evaluation. Any thread.
    [[nodiscard]] int32_t OnStateChanged(bool state, size_t conditionId) override;
    // The service connected: the next evaluation recomputes every condition.
    void OnConnectionEvent(int32_t event) override;
    // The runner is a sink of service controls, not one itself.
    [[nodiscard]] int32_t RegisterControl(EndpointService::IControl*) override;
    [[nodiscard]] int32_t UnregisterControl(EndpointService::IControl*) override;

    // One evaluation pass: runs the method sets of the rules that became true
    // since the last run. Called by the evaluation thread; 0.
    [[nodiscard]] int32_t ReEvalRules();

private:
    struct RuleEntry {
        RulePtr rule;  // never null
        ConditionManager::ConditionPtr condition;
        uint64_t serial = 0;  // unique among the rules ever installed (see LastRun)
        // The rule's method set in methodSets_ (null when it has none), as of
        // methodSetsVersion_: every change of the map changes the version, so
        // the pointer is never used after its entry went.
        uint64_t methodSetCheckedAt = 0;
        const Method* methodSet = nullptr;
    };
    using OnMethodSetsRunEvent = qv::Event<
        qv::MemberFunction_1_args<IEvents, int32_t, const qv::IList<MethodRunData>&, &IEvents::OnMethodSetsRun>>;

    // Where new rules come from: a list to copy them from, or one whose
    // rules are moved into the runner.
    struct NewRules {
        const qv::IList<Rule>* copyFrom = nullptr;
        qv::IList<Rule>* takeFrom = nullptr;
    };
    // Replaces the rules (the console's SetRules without its signal). Returns
    // the failure that left everything as it was (the rules could not be
    // saved); `remembered` gets the error of the rules left out, as the
    // operation reports it.
    int32_t SetRulesLocked(NewRules rules, qv::IList<RuleError>& errors, int32_t& remembered);
    int32_t SetRules(NewRules rules, qv::IList<RuleError>& errors);
    // Stores every method set that can be stored, in order; the first error.
    int32_t SetMethodsLocked(const qv::IList<Method>& methodSets) CR_REQUIRES(lock_);
    // Saves `lastRun_` as it is now; the error, logged by the store.
    int32_t SaveLastRun() CR_REQUIRES(lock_);
    int32_t LoadSettings();
    // Numbers `entries` and attaches the runner to their conditions.
    void Install(std::list<RuleEntry>& entries) CR_REQUIRES(lock_);
    void AttachTo(std::list<RuleEntry>& entries);
    void DetachFrom(std::list<RuleEntry>& entries);
    // Asks for an evaluation and wakes a runner paused by a console update
    // (in memory only: the stored flag stays). Under the lock.
    void SignalEvaluation();
    enum class PassEnd { kCompleted, kGivenUp };

    // The phases of a pass, under the lock. The true rules whose method set
    // is unknown are counted in `unknownCount`, the first of them (as many as
    // the history lists) go to `unknownMethodSet`.
    std::vector<TrueRule> CollectTrueRules(bool invalidateCache, std::vector<std::wstring>& unknownMethodSet,
                                           size_t& unknownCount) CR_REQUIRES(lock_);
    // The ids of the rules whose condition says true now (cached), for a
    // pass that runs nothing.
    std::vector<std::wstring> TrueRuleIds() CR_REQUIRES(lock_);
    // The ids of the rules of `trueEntries`, shared with the last pass that
    // found the same rules true.
    std::shared_ptr<const std::vector<std::wstring>> TrueIds(const std::vector<LastRun::Installed>& trueEntries)
        CR_REQUIRES(lock_);
    // Keeps `record` in the history, notRun filled with `reason` for each of `ids`.
    void Remember(EvaluationRecord& record, const std::vector<std::wstring>& ids, NotRunReason reason)
        CR_REQUIRES(lock_);
    // Runs the method sets of `toRun` in order, all on one run thread, and
    // fills each run's status, response and output.
    // The rules of each run are those of runGroups_.
    PassEnd RunAll(qv::List<MethodRunData>& toRun, bool& leftUnapplied) CR_REQUIRES(lock_);
    // The policy runner's request for a method set, built from its stored
    // node; the reading's error when that cannot be read.
    int32_t MakeRequest(const std::wstring& methodSetId, std::wstring& request) CR_REQUIRES(lock_);
    void RunEvaluationThread();
    void ReleaseServiceControls();

    qv::ServPlugin<IEPSettings> settingsPlugin_;
    qv::ServPlugin<ConditionManager::IManager> conditionManager_;
    qv::ServPlugin<EnterpriseIntegration::IRunPolicy> policyRunner_;
    qv::ServPlugin<Framework::IGroupsManager> groups_;
    std::vector<EndpointService::IControl*> serviceControls_;  // members of the group, held through groups_

    os::RecursiveMutex lock_;  // guards the members marked so
    std::list<RuleEntry> rules_ CR_GUARDED_BY(lock_);
    MethodSets methodSets_ CR_GUARDED_BY(lock_);
    LastRun lastRun_ CR_GUARDED_BY(lock_);
    uint64_t nextSerial_ CR_GUARDED_BY(lock_) = 1;
    uint64_t methodSetsVersion_ CR_GUARDED_BY(lock_) = 1;  // changes with every change of methodSets_
    RunRequests requests_ CR_GUARDED_BY(lock_);            // valid for methodSets_ as of requestsVersion_
    uint64_t requestsVersion_ CR_GUARDED_BY(lock_) = 0;
    RunGroups runGroups_ CR_GUARDED_BY(lock_);  // the runs of the pass under way, the id lists of the last
    bool isDisabled_ CR_GUARDED_BY(lock_) = false;
    RunnerStore store_ CR_GUARDED_BY(lock_){nullptr};

    qv::SynchronyzedObjectContainer<IEvents*> subscribers_;
    OnMethodSetsRunEvent onMethodSetsRun_{subscribers_};

    PostponeSettings postpone_;
    RunnerSignals signals_;
    std::thread evalThread_;
    os::AutoResetEvent evalThreadEnded_;
    os::AutoResetEvent giveUpRun_;  // set by a Stop whose time limit passed
    std::atomic<uint32_t> stopWaitTimeoutMs_{kStopWaitTimeoutMs};
    std::atomic<bool> stopping_{false};  // from Stop to the next Start: no pass starts
    std::atomic<bool> invalidateCache_{false};
    std::atomic<bool> transactionInProgress_{false};
    ConditionManager::ConditionQueue eventQueue_;
    EvaluationHistory history_;  // written by passes; read from any thread (its own mutex)
    // TrueIds' cache, used by passes only (the evaluation thread, under lock_).
    std::vector<uint64_t> trueSerials_ CR_GUARDED_BY(lock_);                         // the serials TrueIds last listed
    std::shared_ptr<const std::vector<std::wstring>> trueIds_ CR_GUARDED_BY(lock_);  // their ids
    // Wall-clock ms of a retry scheduled; 0: none. Set by a pass, cleared by
    // the retry's pass, read by EvaluationStatus on any thread.
    std::atomic<int64_t> retryAtMs_{0};
};

}  // namespace Product::Integration::ConditionalRunner
