#pragma once
// How many conditions of each type are alive in the module, for people asking
// what it is watching (cr-host's "status"). Counted when the factory makes a
// condition and when its deleter frees it, so nothing is kept per condition.
//
// Thread rules: any thread; one mutex guards the counts. The table is never
// destroyed (conditions may be freed while the process exits).
#include <cstddef>
#include <map>
#include <string>

namespace Product::Integration::ConditionManager::LiveConditions {

void Added(const wchar_t* type);
void Removed(const wchar_t* type);
// The types with at least one condition alive, and their counts.
std::map<std::wstring, size_t> Counts();

}  // namespace Product::Integration::ConditionManager::LiveConditions
