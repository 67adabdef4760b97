#include "conditions/network/address_match.h"

#include <algorithm>
#include <cstdint>

namespace Product::Integration::ConditionManager {
namespace {

using qv::Network::IPv4;
using qv::Network::IPv6;

uint64_t Half(const IPv6& a, size_t first) noexcept {
    uint64_t value = 0;
    for (size_t i = first; i < first + 8; ++i) value = (value << 8) | a.address[i];
    return value;
}

// Whether `a` and `b` agree in their top `bits` bits (0 < bits <= 64).
bool TopBitsEqual(uint64_t a, uint64_t b, uint32_t bits) noexcept {
    const uint32_t shift = 64 - bits;
    return (a >> shift) == (b >> shift);
}

}  // namespace

bool AnyInPrefix(const NetworkState::IPv4List& list, const IPv4& wanted) noexcept {
    if (list.empty()) return false;
    if (wanted.prefix == 0) return true;
    const uint32_t shift = IPv4::kFullPrefix - wanted.prefix;
    return std::any_of(list.begin(), list.end(),
                       [&](const IPv4& a) { return (a.Value() >> shift) == (wanted.Value() >> shift); });
}

bool AnyInPrefix(const NetworkState::IPv6List& list, const IPv6& wanted) noexcept {
    if (list.empty()) return false;
    if (wanted.prefix == 0) return true;
    const uint64_t wantedHigh = Half(wanted, 0), wantedLow = Half(wanted, 8);
    return std::any_of(list.begin(), list.end(), [&](const IPv6& a) {
        if (wanted.prefix <= 64) return TopBitsEqual(Half(a, 0), wantedHigh, wanted.prefix);
        return Half(a, 0) == wantedHigh && TopBitsEqual(Half(a, 8), wantedLow, wanted.prefix - 64);
    });
}

bool AnyInRange(const NetworkState::IPv4List& list, const IPv4& start, const IPv4& end) noexcept {
    return std::any_of(list.begin(), list.end(),
                       [&](const IPv4& a) { return start.Value() <= a.Value() && a.Value() <= end.Value(); });
}

bool AnyInRange(const NetworkState::IPv6List& list, const IPv6& start, const IPv6& end) noexcept {
    return std::any_of(list.begin(), list.end(), [&](const IPv6& a) {
        return qv::Network::CompareAddress16(a.address.data(), start.address.data()) >= 0 &&
               qv::Network::CompareAddress16(a.address.data(), end.address.data()) <= 0;
    });
}

}  // namespace Product::Integration::ConditionManager
