#include "conditions/dependencies.h"

#include <cwchar>

namespace Product::Integration::ConditionManager {

std::optional<GUID> ParseGuid(const wchar_t* text) {
    if (!text) return std::nullopt;
    unsigned long long groups[5] = {};
    if (std::swscanf(text, L"{%llx-%llx-%llx-%llx-%llx}", &groups[0], &groups[1], &groups[2], &groups[3], &groups[4]) !=
        5)
        return std::nullopt;
    return qv::MakeGuid(static_cast<uint32_t>(groups[0]), static_cast<uint16_t>(groups[1]),
                        static_cast<uint16_t>(groups[2]), static_cast<uint16_t>(groups[3]),
                        groups[4] & 0xFFFFFFFFFFFFull);
}

}  // namespace Product::Integration::ConditionManager
