#pragma once
// The resolver configuration of a Linux machine (resolv.conf): the DNS
// servers and suffixes every interface uses. Linux only (Windows keeps them
// per adapter, in the adapter records).
#include <string>
#include <string_view>
#include <vector>

#include "os/adapters.h"

namespace os {

struct ResolverConfiguration {
    std::vector<IpAddress> servers;    // "nameserver" lines, in file order; bad addresses skipped
    std::vector<std::wstring> search;  // the words of the last "search" line
    std::wstring domain;               // the last "domain" line
};

// Reads the text of a resolv.conf file. Comments start with '#' or ';'. An
// IPv6 server's zone ("fe80::1%eth0") is dropped. Pure; any thread.
ResolverConfiguration ParseResolverConfiguration(std::string_view text);

// Reads and parses /etc/resolv.conf; empty when it cannot be read.
ResolverConfiguration ReadResolverConfiguration();

}  // namespace os
