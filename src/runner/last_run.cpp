#include "runner/last_run.h"

#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {

bool LastRun::Matches(const std::vector<Installed>& now) const {
    if (now.size() != rules_.Count()) return false;
    if (serials_.size() == now.size()) {
        size_t i = 0;
        for (; i < now.size() && now[i].serial == serials_[i]; ++i) {}
        if (i == now.size()) return true;
    }
    qv::ConstListEnumPtr<Rule> e(rules_.CreateConstEnum());
    for (const Installed& installed : now) {
        if (!(*installed.rule == *e->Current())) return false;
        e->Next();
    }
    return true;
}

int32_t LastRun::Set(const std::vector<Installed>& now) {
    Clear();
    for (const Installed& installed : now) {
        if (const int32_t status = rules_.AddTail(*installed.rule); status != 0) {
            Clear();
            return status;
        }
    }
    serials_.reserve(now.size());
    for (const Installed& installed : now) serials_.push_back(installed.serial);
    return 0;
}

void LastRun::RemoveMethodSet(const std::wstring& methodSetId) {
    serials_.clear();
    qv::ListEnumPtr<Rule> e(rules_.CreateEnum());
    while (e->IsValid()) {
        if (e->Current()->methodSetId == methodSetId) {
            if (rules_.RemoveAt(*e) != 0) break;
            if (e->IsValid()) e->Next();
        } else {
            e->Next();
        }
    }
}

void LastRun::Forget(const std::vector<const Rule*>& rules) {
    serials_.clear();
    for (const Rule* rule : rules) {
        qv::ListEnumPtr<Rule> e(rules_.CreateEnum());
        while (e->IsValid()) {
            if (*e->Current() == *rule) {
                if (rules_.RemoveAt(*e) != 0) break;
            } else {
                e->Next();
            }
        }
    }
}

}  // namespace Product::Integration::ConditionalRunner
