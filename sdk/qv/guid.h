#pragma once
// 128-bit interface identifiers shared by the host and the module.
#include <cstdint>
#include <cstring>

#ifndef GUID_DEFINED
#define GUID_DEFINED
// Same layout as the Windows GUID, so values cross the module boundary as is.
struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
#endif

namespace qv {

// Identifiers are compared as two 64-bit halves, i.e. bytewise.
inline bool GuidEquals(const GUID& a, const GUID& b) noexcept { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// Builds a GUID from the usual {8-4-4-4-12} groups; the last group is 48 bits.
constexpr GUID MakeGuid(uint32_t d1, uint16_t d2, uint16_t d3, uint16_t d4, uint64_t d5) {
    return GUID{d1,
                d2,
                d3,
                {static_cast<uint8_t>(d4 >> 8), static_cast<uint8_t>(d4), static_cast<uint8_t>(d5 >> 40),
                 static_cast<uint8_t>(d5 >> 32), static_cast<uint8_t>(d5 >> 24), static_cast<uint8_t>(d5 >> 16),
                 static_cast<uint8_t>(d5 >> 8), static_cast<uint8_t>(d5)}};
}

}  // namespace qv
