#pragma once
// Synthetic adapter records for the network tests.
#include <array>
#include <string>

#include "network/component_handle.h"
#include "os/adapters.h"
#include "os/module.h"
#include "support/log_capture.h"

namespace network_test {

inline os::IpAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return os::IpAddress::V4({a, b, c, d}); }

// An IPv6 address from its text (the test's own spelling is trusted).
os::IpAddress V6(const std::wstring& text);

// An adapter that is up, of type Ethernet, with one IPv4 address.
inline os::AdapterRecord Adapter(const std::wstring& description, os::IpAddress address) {
    os::AdapterRecord r;
    r.description = description;
    r.ifType = os::if_type::kEthernet;
    r.operStatus = os::OperStatus::kUp;
    r.physicalAddress = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
    r.unicast.push_back(address);
    return r;
}

// A component library that does not exist: every adapter is Other.
inline Product::Integration::ComponentLibraryLocation NoComponents() {
    return {{testing_support::ProgramDirectory()}, os::SharedLibraryFileName(L"no.such.proxy")};
}

// The reference agent-component library built beside the test program.
inline Product::Integration::ComponentLibraryLocation ReferenceComponents() {
    return {{testing_support::ProgramDirectory()}, os::SharedLibraryFileName(L"ovra.proxy")};
}

}  // namespace network_test
