#pragma once
// Direct DNS queries to the machine's configured DNS servers, past any cache.
//
// Windows: DnsQuery_W with DNS_QUERY_BYPASS_CACHE; the record list is freed
// with DnsFree. Linux: glibc's res_nquery (libresolv) with a resolver state
// read afresh from the resolver configuration on every call; glibc keeps no
// cache of its own, so every query goes to the servers.
//
// Blocks for as long as the servers take (the resolver's own time limits and
// retries apply). Any thread: each call uses its own resolver state.
#include <cstdint>
#include <string>

namespace os {

enum class DnsRecordType : uint16_t {
    kA = 1,
    kAAAA = 28,
};

// Whether the servers answer `name` with at least one record of `type`.
// False for every failure: no such name, no record of that type, no answer.
bool HasDnsRecord(const std::wstring& name, DnsRecordType type);

}  // namespace os
