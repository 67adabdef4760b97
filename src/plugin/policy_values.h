#pragma once
// Preset values the host's policy runner may ask for before running a method:
// a fixed, read-only table of (plug-in, method, value) rows.
#include <cstdint>

namespace qv {

struct PolicyValueRow {
    const wchar_t* plugin;
    const wchar_t* method;
    uint32_t value;
};

inline constexpr PolicyValueRow kPolicyValues[] = {
    {L"Firewall", L"EnablePrependMachineRules", 0},
    {L"UserControl", L"EnablePrependBlockedProcessList", 0},
    {L"qv.Integration", L"SetConsoleSettings", 0},
};

// Exact, case-sensitive match of both names, rows in order (null reads as "").
// On a match writes the row's value and returns true; otherwise leaves `value`.
bool FindPolicyValue(const wchar_t* plugin, const wchar_t* method, uint32_t& value);

}  // namespace qv
