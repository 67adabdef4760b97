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

// The first entry of `list` that `matches`, or null.
template <class List, class Predicate>
const typename List::value_type* FindFirst(const List& list, Predicate matches) noexcept {
    const auto found = std::find_if(list.begin(), list.end(), matches);
    return found == list.end() ? nullptr : &*found;
}

}  // namespace

const IPv4* FindInPrefix(const NetworkState::IPv4List& list, const IPv4& wanted) noexcept {
    if (wanted.prefix == 0) return list.empty() ? nullptr : &*list.begin();
    const uint32_t shift = IPv4::kFullPrefix - wanted.prefix;
    return FindFirst(list, [&](const IPv4& a) { return (a.Value() >> shift) == (wanted.Value() >> shift); });
}

const IPv6* FindInPrefix(const NetworkState::IPv6List& list, const IPv6& wanted) noexcept {
    if (wanted.prefix == 0) return list.empty() ? nullptr : &*list.begin();
    const uint64_t wantedHigh = Half(wanted, 0), wantedLow = Half(wanted, 8);
    return FindFirst(list, [&](const IPv6& a) {
        if (wanted.prefix <= 64) return TopBitsEqual(Half(a, 0), wantedHigh, wanted.prefix);
        return Half(a, 0) == wantedHigh && TopBitsEqual(Half(a, 8), wantedLow, wanted.prefix - 64);
    });
}

const IPv4* FindInRange(const NetworkState::IPv4List& list, const IPv4& start, const IPv4& end) noexcept {
    return FindFirst(list, [&](const IPv4& a) { return start.Value() <= a.Value() && a.Value() <= end.Value(); });
}

const IPv6* FindInRange(const NetworkState::IPv6List& list, const IPv6& start, const IPv6& end) noexcept {
    return FindFirst(list, [&](const IPv6& a) {
        return qv::Network::CompareAddress16(a.address.data(), start.address.data()) >= 0 &&
               qv::Network::CompareAddress16(a.address.data(), end.address.data()) <= 0;
    });
}

}  // namespace Product::Integration::ConditionManager
