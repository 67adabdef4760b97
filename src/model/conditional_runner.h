#pragma once
// The runner's interface as the agent and the rest of the module see it, and
// the records that travel through it: rules, method sets, rule errors, the
// evaluation settings and run reports.
//
// The runner object ("Product.ConditionalRunner") answers the identifier
// below with its IConditionalRunnerLocal part. All operations return 0 or a
// Windows error code; they are called on host threads, and the runner
// serialises them itself.
#include <cstdint>
#include <string>

#include <json/value.h>

#include "model/list.h"
#include "qv/guid.h"

namespace qv {
template <class T>
struct InterfaceName;
}  // namespace qv

namespace Product::Integration::ConditionalRunner {

struct IConditionalRunner {
    static constexpr GUID iid = qv::MakeGuid(0x85099FD3, 0xAFDD, 0x4988, 0x3941, 0xD056C568F999);

    // One rule: when the condition tree `matchIf` becomes true, the method set
    // `methodSetId` runs.
    struct Rule {
        std::wstring id;
        std::wstring displayName;
        std::wstring methodSetId;
        Json::Value matchIf;
        // Not part of the JSON form; 1 for every rule built here. Compared by
        // equality so that rules differing in it count as changed.
        int32_t flag = 1;

        friend bool operator==(const Rule& a, const Rule& b) {
            return a.id == b.id && a.displayName == b.displayName && a.methodSetId == b.methodSetId &&
                   a.flag == b.flag && a.matchIf == b.matchIf;
        }
    };

    // One method set: the methods handed to the host's policy runner.
    struct Method {
        std::wstring id;
        std::wstring displayName;
        Json::Value methods;
        Json::Value context;  // null when absent

        friend bool operator==(const Method& a, const Method& b) {
            return a.id == b.id && a.displayName == b.displayName && a.methods == b.methods && a.context == b.context;
        }
    };

    // A rule of a submitted list that could not be taken: its position
    // (counted from 0) and the status of the failure.
    struct RuleError {
        int32_t index = 0;
        int32_t error = 0;

        friend bool operator==(const RuleError&, const RuleError&) = default;
    };

    // Evaluation timing, in seconds: wait for `minEvalTime` of quiet after a
    // change, but no longer than `maxPostponeTime` after the first one.
    struct Settings {
        static constexpr uint32_t kDefaultMinEvalTime = 5;
        static constexpr uint32_t kDefaultMaxPostponeTime = 60;
        uint32_t minEvalTime = kDefaultMinEvalTime;
        uint32_t maxPostponeTime = kDefaultMaxPostponeTime;

        friend bool operator==(const Settings&, const Settings&) = default;
    };

    // Subscriber to run reports. Called on the runner's evaluation thread.
    struct IEvents {
        // One method-set run of an evaluation pass.
        struct MethodRunData {
            std::wstring methodSetId;
            int32_t status = 0;
            Json::Value response;            // the policy runner's answer; null when none
            qv::List<std::wstring> ruleIds;  // the rules that caused the run, in rule order
            Json::Value runOutput;           // the runner's own; not reported

            friend bool operator==(const MethodRunData& a, const MethodRunData& b) {
                return a.methodSetId == b.methodSetId && a.status == b.status && a.response == b.response &&
                       a.ruleIds == b.ruleIds && a.runOutput == b.runOutput;
            }
        };

        virtual ~IEvents() = default;
        // One report per evaluation pass that ran method sets, runs in order.
        [[nodiscard]] virtual int32_t OnMethodSetsRun(const qv::IList<MethodRunData>& runs) = 0;
    };
    using MethodRunData = IEvents::MethodRunData;

    [[nodiscard]] virtual int32_t GetSettings(Settings& settings) = 0;
    // Sets both values together.
    [[nodiscard]] virtual int32_t SetSettings(const Settings& settings) = 0;
    // Bracket an update sent in several calls: no evaluation in between.
    [[nodiscard]] virtual int32_t BeginTransaction() = 0;
    [[nodiscard]] virtual int32_t EndTransaction() = 0;
    // Replaces all rules. Rules whose condition cannot be built are left out
    // and reported in `errors`, which is filled whatever the result.
    [[nodiscard]] virtual int32_t SetRules(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) = 0;
    // Appends a copy of every rule, in rule order.
    [[nodiscard]] virtual int32_t GetRules(qv::IList<Rule>& rules) = 0;
    // Adds or replaces one method set; with `signal` an evaluation follows.
    [[nodiscard]] virtual int32_t SetMethod(const Method& methodSet, bool signal) = 0;
    // kNotFound when `id` is unknown.
    [[nodiscard]] virtual int32_t GetMethodSet(const std::wstring& id, Method& methodSet) = 0;
    [[nodiscard]] virtual int32_t DeleteMethodSet(const std::wstring& id) = 0;
    [[nodiscard]] virtual int32_t DeleteAllMethodSets() = 0;
    // Appends every method-set id, in ordinal order.
    [[nodiscard]] virtual int32_t GetMethodSetIds(qv::IList<std::wstring>& ids) = 0;
    [[nodiscard]] virtual int32_t UpdateRulesAndMethods(const qv::IList<Rule>& rules,
                                                        const qv::IList<Method>& methodSets) = 0;
    [[nodiscard]] virtual int32_t UpdateMethods(const qv::IList<Method>& methodSets) = 0;
    [[nodiscard]] virtual int32_t SetEnabled(bool enabled) = 0;
    [[nodiscard]] virtual int32_t IsEnabled(bool& enabled) = 0;
    // Adds / removes a report subscriber (not owned). `flags` is reserved (0).
    // kInvalidParameter for a null listener; removing an absent one gives kFunctionFailed.
    [[nodiscard]] virtual int32_t Subscribe(IEvents* listener, int32_t flags) = 0;
    [[nodiscard]] virtual int32_t Unsubscribe(IEvents* listener, int32_t flags) = 0;
    virtual ~IConditionalRunner() = default;
};

// The runner's full operation set inside the module.
struct IConditionalRunnerLocal : IConditionalRunner {
    // Visits one rule under the runner's lock; must not call back into the runner.
    struct IRuleVisitor {
        virtual void Visit(const Rule& rule) = 0;

    protected:
        ~IRuleVisitor() = default;
    };
    // 0 after visiting the rule with that id, kNotFound when there is none.
    [[nodiscard]] virtual int32_t NavigateRulesById(const std::wstring& id, IRuleVisitor& visitor) = 0;
};

// The module's own extensions of the runner, beyond the interface the host
// knows: answered by the runner object ("Product.ConditionalRunner") under
// an identifier of their own, so that a host or agent that never asks for
// them pays nothing.
struct IConditionalRunnerExtensions {
    static constexpr GUID iid = qv::MakeGuid(0x3C1B7E52, 0x94D0, 0x4F6B, 0xA7E1, 0x5B2D90C4E812);

    // UpdateRulesAndMethods that also reports the rules left out, as
    // SetRules does: `errors` is filled whatever the result.
    [[nodiscard]] virtual int32_t UpdateRulesAndMethods(const qv::IList<IConditionalRunner::Rule>& rules,
                                                        const qv::IList<IConditionalRunner::Method>& methodSets,
                                                        qv::IList<IConditionalRunner::RuleError>& errors) = 0;
    // SetRules that takes the rules over instead of copying them: the
    // elements of `rules` may be left moved from (the list keeps its length).
    [[nodiscard]] virtual int32_t TakeRules(qv::IList<IConditionalRunner::Rule>& rules,
                                            qv::IList<IConditionalRunner::RuleError>& errors) = 0;
    // How long Stop waits for the evaluation thread before it gives up a
    // method-set run that does not return (180000 ms unless set).
    virtual void SetStopWaitTimeout(uint32_t milliseconds) = 0;

protected:
    ~IConditionalRunnerExtensions() = default;
};

// What the runner can tell a person asking why a rule ran or did not: the
// module's own optional interface, answered by the runner's QueryInterface.
struct IConditionalRunnerDiagnostics {
    static constexpr GUID iid = qv::MakeGuid(0x6A93F2C4, 0x1B7E, 0x4D05, 0x8E3A, 0xC2715D9B0F36);

    // The last evaluations, oldest first (at most 100, kept in memory):
    // [{"time", "triggers": [...], "trueRules": [ids], "runs": [{"methodSetId",
    //   "rules", "status", "response"}], "notRun": [{"ruleId", "reason"}],
    //   "retryAt"?}]. Any thread.
    [[nodiscard]] virtual Json::Value History() = 0;
    // The evaluation's state now: {"evaluationPending": bool, "pendingTriggers":
    // [...], "evaluationDueAt": time or null, "lastEvaluation": time or null,
    // "retryAt": time or null, "transactionOpen": bool}. Any thread.
    [[nodiscard]] virtual Json::Value EvaluationStatus() = 0;

protected:
    ~IConditionalRunnerDiagnostics() = default;
};

}  // namespace Product::Integration::ConditionalRunner

template <>
struct qv::InterfaceName<Product::Integration::ConditionalRunner::IConditionalRunnerDiagnostics> {
    static constexpr const wchar_t* value =
        L"struct Product::Integration::ConditionalRunner::IConditionalRunnerDiagnostics";
};

template <>
struct qv::InterfaceName<Product::Integration::ConditionalRunner::IConditionalRunner> {
    static constexpr const wchar_t* value = L"struct Product::Integration::ConditionalRunner::IConditionalRunner";
};
template <>
struct qv::InterfaceName<Product::Integration::ConditionalRunner::IConditionalRunnerExtensions> {
    static constexpr const wchar_t* value =
        L"struct Product::Integration::ConditionalRunner::IConditionalRunnerExtensions";
};
