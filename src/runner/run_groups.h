#pragma once
// The method-set runs of an evaluation pass: one run per method set of the
// true rules, in order of first appearance, each naming its rules' ids in
// rule order.
//
// The id lists of the last pass's runs are kept for the next one: a run whose
// rules are the same installed rules (equal serials, in the same order) as
// its method set's run in the last pass takes that list, and the history's
// copy of it, instead of copying every id again. A serial names one
// installed rule for good, so equal serials mean equal ids. Lists not taken
// back after a pass (a pass given up, or one that failed) are simply made
// anew by the next.
//
// Thread rules: not synchronised; the runner uses it under its lock, in one
// pass at a time: Group, then RulesOf and HistoryIds, then Keep.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "model/conditional_runner.h"
#include "model/ordinal_order.h"
#include "runner/last_run.h"

namespace Product::Integration::ConditionalRunner {

// A true rule of a pass and its method set (in the runner's method sets).
struct TrueRule {
    LastRun::Installed installed;
    const Method* methodSet;
};

class RunGroups {
public:
    using MethodRunData = IConditionalRunner::IEvents::MethodRunData;

    // Fills the empty `toRun` with the runs of `trueRules`; kNotEnoughMemory
    // when a list cannot grow.
    [[nodiscard]] int32_t Group(const std::vector<TrueRule>& trueRules, qv::List<MethodRunData>& toRun);
    // The rules of run `index` of the last Group, in rule order.
    std::vector<const Rule*> RulesOf(size_t index) const;
    // The ids of run `index`, `run` being that run, as the history keeps
    // them: shared with the last pass when the run took its list.
    std::shared_ptr<const std::vector<std::wstring>> HistoryIds(size_t index, const MethodRunData& run);
    // Takes back the id lists of the runs of the last Group (`toRun`, whose
    // lists are left empty) for the next pass.
    void Keep(qv::List<MethodRunData>& toRun);

private:
    struct Kept {
        std::vector<uint64_t> serials;
        qv::List<std::wstring> ids;
        std::shared_ptr<const std::vector<std::wstring>> historyIds;
    };

    // The last Group: its true rules ordered by run (run i owns the entries
    // from begin_[i] to begin_[i + 1]), and each run's history ids when known.
    std::vector<const RulePtr*> rules_;
    std::vector<uint64_t> serials_;
    std::vector<size_t> begin_;
    std::vector<std::shared_ptr<const std::vector<std::wstring>>> historyIds_;
    std::map<std::wstring, Kept, qv::Utf16OrdinalLess> kept_;  // by method-set id
};

}  // namespace Product::Integration::ConditionalRunner
