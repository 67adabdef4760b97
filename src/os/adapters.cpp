#include "os/adapters.h"

#include <algorithm>

namespace os {

IpAddress IpAddress::V4(std::array<uint8_t, 4> address) {
    IpAddress a;
    a.family = Family::kIPv4;
    std::copy(address.begin(), address.end(), a.bytes.begin());
    return a;
}

IpAddress IpAddress::V6(const std::array<uint8_t, 16>& address) {
    IpAddress a;
    a.family = Family::kIPv6;
    a.bytes = address;
    return a;
}

}  // namespace os
