#pragma once
// Folding one adapter of the system's adapter list into a network state.
#include <cstdint>

#include "network/adapter_type_extractor.h"
#include "network/network_state.h"
#include "os/adapters.h"

namespace Product::Integration {

// Adds what `adapter` contributes to `state`:
// - an adapter that is not up contributes nothing (logged);
// - its unicast, DNS-server, WINS-server and gateway addresses go to the
//   matching IPv4 or IPv6 lists (full prefix); other families are ignored;
// - an adapter without a unicast address of either family contributes
//   nothing else, not even its name;
// - otherwise its description joins the adapter names, its DNS-suffix chain
//   and then its own suffix (when not empty) the suffixes, and its
//   connection kind (from `types`) the kinds unless it is Other.
// The adapter's own part is logged (its dump) and merged into `state`; the
// SSIDs are not touched. 0; kInvalidParameter for a null adapter.
// Thread rule: as `types`.
[[nodiscard]] int32_t Convert(const os::AdapterRecord* adapter, NetworkState& state, AdapterTypeExtractor& types);

}  // namespace Product::Integration
