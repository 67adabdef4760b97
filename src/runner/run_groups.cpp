#include "runner/run_groups.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <utility>

#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {

int32_t RunGroups::Group(const std::vector<TrueRule>& trueRules, qv::List<MethodRunData>& toRun) {
    // Lists not taken by this pass are not kept any longer.
    std::map<std::wstring, Kept, qv::Utf16OrdinalLess> last;
    last.swap(kept_);
    historyIds_.clear();
    try {
        // The run of each true rule, runs numbered in order of first
        // appearance, found by the method set's entry rather than by its id;
        // then the rules ordered by run, each run's in rule order.
        std::unordered_map<const Method*, size_t> runOf;
        std::vector<size_t> runOfRule(trueRules.size());
        std::vector<size_t> counts;
        for (size_t i = 0; i < trueRules.size(); ++i) {
            const auto [found, added] = runOf.try_emplace(trueRules[i].methodSet, counts.size());
            if (added) counts.push_back(0);
            runOfRule[i] = found->second;
            ++counts[found->second];
        }
        begin_.assign(counts.size() + 1, 0);
        for (size_t run = 0; run < counts.size(); ++run) begin_[run + 1] = begin_[run] + counts[run];
        rules_.resize(trueRules.size());
        serials_.resize(trueRules.size());
        std::vector<size_t> next(begin_.begin(), begin_.end() - 1);
        for (size_t i = 0; i < trueRules.size(); ++i) {
            const size_t at = next[runOfRule[i]]++;
            rules_[at] = trueRules[i].installed.rule;
            serials_[at] = trueRules[i].installed.serial;
        }
        historyIds_.resize(counts.size());
    } catch (const std::bad_alloc&) {
        begin_.assign(1, 0);
        historyIds_.clear();
        return qv::status::kNotEnoughMemory;
    }

    for (size_t run = 0; run + 1 < begin_.size(); ++run) {
        const auto first = serials_.begin() + static_cast<std::ptrdiff_t>(begin_[run]);
        const auto end = serials_.begin() + static_cast<std::ptrdiff_t>(begin_[run + 1]);
        MethodRunData created;
        created.methodSetId = (*rules_[begin_[run]])->rule().methodSetId;
        if (toRun.AddTail(created) != 0) return qv::status::kNotEnoughMemory;
        MethodRunData& added = *toRun.GetTail();  // list elements stay where they are
        const auto kept = last.find(added.methodSetId);
        if (kept != last.end() && std::equal(first, end, kept->second.serials.begin(), kept->second.serials.end())) {
            added.ruleIds = std::move(kept->second.ids);
            historyIds_[run] = std::move(kept->second.historyIds);
            continue;
        }
        for (size_t i = begin_[run]; i < begin_[run + 1]; ++i)
            if (added.ruleIds.AddTail((*rules_[i])->rule().id) != 0) return qv::status::kNotEnoughMemory;
    }
    return 0;
}

std::vector<const Rule*> RunGroups::RulesOf(size_t index) const {
    std::vector<const Rule*> rules;
    for (size_t i = begin_[index]; i < begin_[index + 1]; ++i) rules.push_back(&(*rules_[i])->rule());
    return rules;
}

std::shared_ptr<const std::vector<std::wstring>> RunGroups::HistoryIds(size_t index, const MethodRunData& run) {
    if (!historyIds_[index]) {
        auto ids = std::make_shared<std::vector<std::wstring>>();
        ids->reserve(run.ruleIds.Count());
        run.ruleIds.ForEach([&](const std::wstring& id) { ids->push_back(id); });
        historyIds_[index] = std::move(ids);
    }
    return historyIds_[index];
}

void RunGroups::Keep(qv::List<MethodRunData>& toRun) {
    kept_.clear();
    try {
        size_t run = 0;
        for (MethodRunData& data : toRun) {
            if (run + 1 >= begin_.size()) break;  // not the runs of the last Group
            Kept& kept = kept_[data.methodSetId];
            kept.serials.assign(serials_.begin() + static_cast<std::ptrdiff_t>(begin_[run]),
                                serials_.begin() + static_cast<std::ptrdiff_t>(begin_[run + 1]));
            kept.ids = std::move(data.ruleIds);
            kept.historyIds = historyIds_[run];
            ++run;
        }
    } catch (const std::bad_alloc&) {
        kept_.clear();  // the next pass makes every list anew
    }
}

}  // namespace Product::Integration::ConditionalRunner
