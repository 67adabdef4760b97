#pragma once
// The address tests of the network conditions, over the merged lists of a
// network state (any entry, from any adapter; the entries' own prefix
// lengths play no part). Each answers the first entry that matches, or null;
// the entry lives in `list`.
//
// Pure functions; any thread.
#include "network/network_state.h"

namespace Product::Integration::ConditionManager {

// An entry of `list` that agrees with `wanted` in its first wanted.prefix
// bits: none in an empty list, the first entry for prefix 0.
const qv::Network::IPv4* FindInPrefix(const NetworkState::IPv4List& list, const qv::Network::IPv4& wanted) noexcept;
// The same for IPv6, compared as two big-endian 64-bit halves: up to 64 bits
// on the first half alone; above 64 the first halves equal and the second
// compared on its first (prefix - 64) bits.
const qv::Network::IPv6* FindInPrefix(const NetworkState::IPv6List& list, const qv::Network::IPv6& wanted) noexcept;

// An entry of `list` in [start, end], numerically (inclusive; a reversed
// range holds nothing).
const qv::Network::IPv4* FindInRange(const NetworkState::IPv4List& list, const qv::Network::IPv4& start,
                                     const qv::Network::IPv4& end) noexcept;
// The same for IPv6 in the order of CompareAddress16, in which the last
// differing byte decides: not the numeric interval, deliberately.
const qv::Network::IPv6* FindInRange(const NetworkState::IPv6List& list, const qv::Network::IPv6& start,
                                     const qv::Network::IPv6& end) noexcept;

}  // namespace Product::Integration::ConditionManager
