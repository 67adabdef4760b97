#include "adapter_records.h"

#include <gtest/gtest.h>

#include "network/ip_address.h"

namespace network_test {

os::IpAddress V6(const std::wstring& text) {
    qv::Network::IPv6 parsed;
    if (qv::Network::IPv6::FromString(parsed, text) != 0) ADD_FAILURE() << "bad IPv6 text in a test";
    return os::IpAddress::V6(parsed.address);
}

}  // namespace network_test
