#pragma once
// The rules that were true at the last run carried out, in rule order: what
// an evaluation compares with to decide whether anything changed.
//
// While the list is exactly what a pass copied from the installed rules, it
// also knows which installed rules those were (by their serial numbers), so
// that an unchanged pass is recognised without comparing whole condition
// trees. Any other change of the list (read from the store, shortened for a
// retry or a changed method set) drops that knowledge, and the next pass
// compares the rules themselves.
//
// Thread rules: not synchronised; the runner uses it under its lock.
#include <cstdint>
#include <string>
#include <vector>

#include "model/runner_json.h"

namespace Product::Integration::ConditionalRunner {

class LastRun {
public:
    // An installed rule and its serial number: a number no other installed
    // rule has had, so that equal serials mean an equal rule.
    struct Installed {
        const Rule* rule;
        uint64_t serial;
    };

    const qv::List<Rule>& rules() const noexcept { return rules_; }
    // For reading from the store; the serials are then unknown.
    qv::List<Rule>& ReplaceFromStore() noexcept {
        serials_.clear();
        return rules_;
    }
    void Clear() noexcept {
        rules_.Clear();
        serials_.clear();
    }

    // Whether `now` are the same rules in the same order.
    [[nodiscard]] bool Matches(const std::vector<Installed>& now) const;
    // Becomes a copy of `now`; kNotEnoughMemory when the list is full.
    [[nodiscard]] int32_t Set(const std::vector<Installed>& now);

    // Removes the rules naming `methodSetId`, so that a changed method set
    // runs again. After removing an entry the scan steps past the one that
    // followed it without looking at it: of two adjacent entries naming the
    // method set only the first goes; the shorter list counts as a change all
    // the same.
    void RemoveMethodSet(const std::wstring& methodSetId);
    // Removes every entry equal to one of `rules`: rules whose run did not
    // reach its target count as changed at the next pass.
    void Forget(const std::vector<const Rule*>& rules);

private:
    qv::List<Rule> rules_;
    std::vector<uint64_t> serials_;  // one per rule while known, else empty
};

}  // namespace Product::Integration::ConditionalRunner
