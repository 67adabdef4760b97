#include "conditions/live_conditions.h"

#include <mutex>

#include "os/no_destructor.h"

namespace Product::Integration::ConditionManager::LiveConditions {
namespace {

struct Table {
    std::mutex mutex;
    std::map<std::wstring, size_t> counts;  // guarded by mutex
};

Table& TheTable() {
    static os::NoDestructor<Table> table;
    return *table;
}

}  // namespace

void Added(const wchar_t* type) {
    Table& table = TheTable();
    std::lock_guard lock(table.mutex);
    ++table.counts[type];
}

void Removed(const wchar_t* type) {
    Table& table = TheTable();
    std::lock_guard lock(table.mutex);
    const auto found = table.counts.find(type);
    if (found == table.counts.end()) return;
    // The last one leaves no entry behind: nothing is held once all are freed.
    if (--found->second == 0) table.counts.erase(found);
}

std::map<std::wstring, size_t> Counts() {
    Table& table = TheTable();
    std::lock_guard lock(table.mutex);
    return table.counts;
}

}  // namespace Product::Integration::ConditionManager::LiveConditions
