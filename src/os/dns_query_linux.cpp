#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <array>
#include <cstring>
#include <optional>

#include "os/dns_query.h"
#include "os/utf8.h"

namespace os {

bool HasDnsRecord(const std::wstring& name, DnsRecordType type) {
    // A name holding a NUL would be cut short; it names nothing.
    if (name.find(L'\0') != std::wstring::npos) return false;
    const std::optional<std::string> narrow = WideToUtf8(name);
    if (!narrow) return false;
    struct __res_state state;
    std::memset(&state, 0, sizeof state);
    if (::res_ninit(&state) != 0) {
        ::res_nclose(&state);
        return false;
    }
    std::array<unsigned char, NS_PACKETSZ * 4> answer{};
    // A non-negative length means the servers answered without error and
    // with at least one record (glibc reports an empty answer as NO_DATA).
    const int length = ::res_nquery(&state, narrow->c_str(), ns_c_in, static_cast<int>(type), answer.data(),
                                    static_cast<int>(answer.size()));
    ::res_nclose(&state);
    return length >= 0;
}

}  // namespace os
