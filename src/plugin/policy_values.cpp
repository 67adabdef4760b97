#include "plugin/policy_values.h"

#include <cwchar>

namespace qv {

bool FindPolicyValue(const wchar_t* plugin, const wchar_t* method, uint32_t& value) {
    if (!plugin) plugin = L"";
    if (!method) method = L"";
    for (const PolicyValueRow& row : kPolicyValues) {
        if (std::wcscmp(row.plugin, plugin) == 0 && std::wcscmp(row.method, method) == 0) {
            value = row.value;
            return true;
        }
    }
    return false;
}

}  // namespace qv
