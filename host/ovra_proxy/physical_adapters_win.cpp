// winsock2.h and ws2ipdef.h before windows.h, all before the IP helper
// (the interface table needs the IPv6 definitions).
// clang-format off
#include <winsock2.h>
#include <ws2ipdef.h>
#include <windows.h>
#include <iphlpapi.h>
#include <netioapi.h>
// clang-format on

#include "physical_adapters.h"

namespace host::ovra {

std::set<std::wstring> ReadPhysicalMacs() {
    std::set<std::wstring> macs;
    MIB_IF_TABLE2* table = nullptr;
    if (::GetIfTable2(&table) != NO_ERROR || !table) return macs;
    for (ULONG i = 0; i < table->NumEntries; ++i) {
        const MIB_IF_ROW2& row = table->Table[i];
        if (!row.InterfaceAndOperStatusFlags.HardwareInterface || row.PhysicalAddressLength == 0) continue;
        macs.insert(MacText(row.PhysicalAddress, row.PhysicalAddressLength));
    }
    ::FreeMibTable(table);
    return macs;
}

}  // namespace host::ovra
