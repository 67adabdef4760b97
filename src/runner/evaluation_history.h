#pragma once
// The runner's last evaluations, kept in memory for a person asking why a
// rule ran or did not (cr-host's "history"): when each pass ran, what asked
// for it, which rules were true, each method set run with its results, each
// true rule that did not run and why, and a retry it scheduled.
//
// Bounded: the oldest record goes when a record beyond kCapacity comes, and
// a record keeps at most kListedRules ids of each list (the first ones) with
// the list's length, so that the history costs the same with 10,000 rules
// as with 100.
// Nothing here is persisted; a restart begins a new history.
//
// Thread rules: Record on the evaluation thread, ToJson from any thread;
// one mutex guards the records, held only to copy one in or out.
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "os/thread_annotations.h"

namespace Product::Integration::ConditionalRunner {

// What asked for an evaluation. Several may be pending when a pass begins.
enum class EvaluationTrigger : uint32_t {
    kStart = 1u << 0,             // the runner started
    kConditionChange = 1u << 1,   // a rule's condition changed
    kRetry = 1u << 2,             // the retry after a run that did not reach its target
    kEnabled = 1u << 3,           // the runner was enabled
    kConsole = 1u << 4,           // rules, method sets or settings changed
    kServiceConnected = 1u << 5,  // the host's service connected
};

// Why a true rule did not run in a pass.
enum class NotRunReason {
    kUnchanged,         // the true rules are those of the last run
    kMethodSetUnknown,  // it names a method set the runner does not have
    kRunnerDisabled,    // the runner is disabled
    kTransactionOpen,   // the console is replacing rules and method sets
};

const char* TriggerName(EvaluationTrigger trigger) noexcept;
const char* NotRunReasonText(NotRunReason reason) noexcept;

struct EvaluationRecord {
    struct MethodSetRun {
        std::wstring methodSetId;
        // The rules that asked for it, shared with the records of passes
        // whose run of the method set had the same rules (never null).
        std::shared_ptr<const std::vector<std::wstring>> ruleIds;
        int32_t status = 0;
        Json::Value response;  // the policy runner's answer (its "results" per method); null when none
    };
    struct RuleNotRun {
        std::wstring ruleId;
        NotRunReason reason;
    };

    std::chrono::system_clock::time_point when;
    uint32_t triggers = 0;  // EvaluationTrigger bits
    // The first kListedRules true rules, shared by the records of passes
    // that found the same rules true (null: none), and how many there were.
    std::shared_ptr<const std::vector<std::wstring>> trueRules;
    size_t trueRuleCount = 0;
    // Every true rule did not run: the same rules as at the last run.
    bool trueRulesUnchanged = false;
    std::vector<MethodSetRun> runs;
    std::vector<RuleNotRun> notRun;  // besides the unchanged ones; the first kListedRules
    size_t notRunCount = 0;          // of notRun, before it was cut
    std::optional<std::chrono::system_clock::time_point> retryAt;
};

class EvaluationHistory {
public:
    static constexpr size_t kCapacity = 100;
    static constexpr size_t kListedRules = 100;

    void Record(EvaluationRecord record);
    // Oldest first:
    //   [{"time", "triggers": ["conditionChange", ...], "trueRules": [ids],
    //     "trueRuleCount", "notRunCount" (also the ones not listed),
    //     "runs": [{"methodSetId", "rules": [ids], "status", "response"}],
    //     "notRun": [{"ruleId", "reason"}], "retryAt"?}]
    Json::Value ToJson() const;
    // The newest record, if any.
    std::optional<EvaluationRecord> Last() const;
    size_t size() const;

private:
    mutable os::Mutex mutex_;
    std::deque<EvaluationRecord> records_ CR_GUARDED_BY(mutex_);
};

}  // namespace Product::Integration::ConditionalRunner
