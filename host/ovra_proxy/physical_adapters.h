#pragma once
// Which network adapters of the machine are backed by a hardware device, by
// physical address. The reference agent components answer from this.
//
// Linux: an interface whose sysfs entry has a "device" link (a bus device
// such as PCI, virtio or USB stands behind it); veth, bridge, tunnel and
// loopback interfaces have none.
// Windows: an interface the interface table marks as a hardware interface.
//
// Any thread; each call asks the system anew.
#include <set>
#include <string>

namespace host::ovra {

// Physical addresses as lower-case hexadecimal digit pairs without
// separators ("02fc00000001"); adapters without an address are left out.
std::set<std::wstring> ReadPhysicalMacs();

// `length` bytes of `address` in that form.
std::wstring MacText(const unsigned char* address, unsigned length);

}  // namespace host::ovra
