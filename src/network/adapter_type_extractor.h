#pragma once
// Tells the kind of connection an adapter gives: Ethernet, Wireless or Other.
//
// Only a physical adapter counts as Ethernet or Wireless. Whether it is
// physical is the agent's knowledge, asked of two of its components: first
// "Ovra.OSInfo" (IPhysicalAdapterQuery, by interface type and physical
// address), then "Ovra.Network" (IMacQuery, by the address's text). Without
// the components nothing is physical and every adapter is Other; that is
// not an error.
//
// Thread rule: one thread at a time (the provider calls it under its state lock).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "network/component_handle.h"
#include "network/network_state.h"

namespace Product::Integration {

class AdapterTypeExtractor {
public:
    // Acquires both components from `location`; either may be missing.
    explicit AdapterTypeExtractor(const ComponentLibraryLocation& location);
    AdapterTypeExtractor(const AdapterTypeExtractor&) = delete;
    AdapterTypeExtractor& operator=(const AdapterTypeExtractor&) = delete;

    // Lets the MAC table of "Ovra.Network" be read anew (when it is held);
    // called at the start of every snapshot.
    void Refresh();

    // A physical adapter of type 6 or 117 is Ethernet, of type 71 Wireless;
    // anything else is Other.
    ConnectionKind Classify(uint32_t ifType, const std::vector<uint8_t>& physicalAddress);

    // Asks "Ovra.Network" about the address written as "%02x" pairs; false
    // when the component is not held. Logs "mac [...] is physical [TRUE|FALSE]".
    bool IsPhysicalMAC(const uint8_t* address, size_t length);

    bool HasPhysicalAdapterQuery() const noexcept { return osInfo_.Held(); }
    bool HasMacQuery() const noexcept { return network_.Held(); }

private:
    ComponentHandle osInfo_;   // IPhysicalAdapterQuery
    ComponentHandle network_;  // IMacQuery
};

}  // namespace Product::Integration
