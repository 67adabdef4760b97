// winsock2.h before windows.h.
// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <windns.h>
// clang-format on

#include "os/dns_query.h"

namespace os {

bool HasDnsRecord(const std::wstring& name, DnsRecordType type) {
    PDNS_RECORD records = nullptr;
    const DNS_STATUS status =
        ::DnsQuery_W(name.c_str(), static_cast<WORD>(type), DNS_QUERY_BYPASS_CACHE, nullptr, &records, nullptr);
    if (records) ::DnsFree(records, DnsFreeRecordList);
    return status == 0;
}

}  // namespace os
