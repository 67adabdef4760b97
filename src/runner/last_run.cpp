#include "runner/last_run.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {

int32_t LastRun::Restore(const qv::IList<Rule>& stored, const std::vector<RulePtr>& installed) {
    Clear();
    try {
        std::unordered_multimap<std::wstring_view, const RulePtr*> byId;
        byId.reserve(installed.size());
        for (const RulePtr& record : installed) byId.emplace(record->rule().id, &record);
        rules_.reserve(stored.Count());
        stored.ForEach([&](const Rule& rule) {
            const auto [first, last] = byId.equal_range(rule.id);
            const auto same =
                std::find_if(first, last, [&](const auto& entry) { return (*entry.second)->rule() == rule; });
            rules_.push_back(same != last ? *same->second : std::make_shared<const RuleRecord>(rule));
        });
    } catch (const std::bad_alloc&) {
        Clear();
        return qv::status::kNotEnoughMemory;
    }
    return 0;
}

bool LastRun::Matches(const std::vector<Installed>& now) const {
    if (now.size() != rules_.size()) return false;
    if (serials_.size() == now.size()) {
        size_t i = 0;
        for (; i < now.size() && now[i].serial == serials_[i]; ++i) {}
        if (i == now.size()) return true;
    }
    for (size_t i = 0; i < now.size(); ++i) {
        const RulePtr& current = *now[i].rule;
        if (current != rules_[i] && !(current->rule() == rules_[i]->rule())) return false;
    }
    return true;
}

int32_t LastRun::Set(const std::vector<Installed>& now) {
    Clear();
    try {
        rules_.reserve(now.size());
        serials_.reserve(now.size());
        for (const Installed& installed : now) {
            rules_.push_back(*installed.rule);
            serials_.push_back(installed.serial);
        }
    } catch (const std::bad_alloc&) {
        Clear();
        return qv::status::kNotEnoughMemory;
    }
    return 0;
}

bool LastRun::RemoveMethodSet(const std::wstring& methodSetId) {
    const size_t before = rules_.size();
    std::vector<RulePtr> kept;
    kept.reserve(rules_.size());
    for (size_t i = 0; i < rules_.size(); ++i) {
        if (rules_[i]->rule().methodSetId != methodSetId) {
            kept.push_back(std::move(rules_[i]));
            continue;
        }
        // The entry after a removed one is kept unexamined.
        if (i + 1 < rules_.size()) kept.push_back(std::move(rules_[++i]));
    }
    rules_.swap(kept);
    if (rules_.size() == before) return false;
    serials_.clear();
    return true;
}

void LastRun::Forget(const std::vector<const Rule*>& rules) {
    serials_.clear();
    // The rules are usually this list's own records: those go by identity,
    // and only the others are compared whole.
    std::unordered_set<const Rule*> records;
    for (const RulePtr& entry : rules_) records.insert(&entry->rule());
    std::unordered_set<const Rule*> forgotten;
    std::vector<const Rule*> others;
    for (const Rule* rule : rules) {
        if (records.contains(rule))
            forgotten.insert(rule);
        else
            others.push_back(rule);
    }
    std::erase_if(rules_, [&](const RulePtr& entry) {
        return forgotten.contains(&entry->rule()) ||
               std::any_of(others.begin(), others.end(), [&](const Rule* rule) { return entry->rule() == *rule; });
    });
}

}  // namespace Product::Integration::ConditionalRunner
