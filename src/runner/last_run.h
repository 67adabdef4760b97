#pragma once
// The rules that were true at the last run carried out, in rule order: what
// an evaluation compares with to decide whether anything changed.
//
// The list shares the installed rules' records rather than copying them, so
// a pass that runs costs no copy of condition trees. While the list is
// exactly what a pass took from the installed rules, it also knows which
// installed rules those were (by their serial numbers), so that an unchanged
// pass is recognised without comparing whole condition trees. Any other
// change of the list (read from the store, shortened for a retry or a changed
// method set) drops that knowledge, and the next pass compares the rules
// themselves.
//
// Thread rules: not synchronised; the runner uses it under its lock.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "model/runner_json.h"
#include "runner/rule_record.h"

namespace Product::Integration::ConditionalRunner {

class LastRun {
public:
    // An installed rule and its serial number: a number no other installed
    // rule has had, so that equal serials mean an equal rule. `rule` points
    // at the installed rule's record holder, which outlives the pass.
    struct Installed {
        const RulePtr* rule;
        uint64_t serial;
    };

    const std::vector<RulePtr>& rules() const noexcept { return rules_; }
    // Becomes the rules read from the store; the serials are then unknown.
    // A stored rule equal to one of `installed` shares its record instead of
    // being kept twice. kNotEnoughMemory (and empty) when they cannot be
    // copied.
    [[nodiscard]] int32_t Restore(const qv::IList<Rule>& stored, const std::vector<RulePtr>& installed = {});
    void Clear() noexcept {
        rules_.clear();
        serials_.clear();
    }

    // Whether `now` are the same rules in the same order.
    [[nodiscard]] bool Matches(const std::vector<Installed>& now) const;
    // Becomes `now`, sharing its records; kNotEnoughMemory (and empty) when
    // the list cannot grow.
    [[nodiscard]] int32_t Set(const std::vector<Installed>& now);

    // Removes the rules naming `methodSetId`, so that a changed method set
    // runs again. After removing an entry the scan steps past the one that
    // followed it without looking at it: of two adjacent entries naming the
    // method set only the first goes; the shorter list counts as a change all
    // the same. True when an entry went.
    bool RemoveMethodSet(const std::wstring& methodSetId);
    // Removes every entry equal to one of `rules`: rules whose run did not
    // reach its target count as changed at the next pass.
    void Forget(const std::vector<const Rule*>& rules);

private:
    std::vector<RulePtr> rules_;
    std::vector<uint64_t> serials_;  // one per rule while known, else empty
};

}  // namespace Product::Integration::ConditionalRunner
