#include "os/resolver_config.h"

#include <arpa/inet.h>

#include <sstream>

#include "os/file_io.h"
#include "os/utf8.h"

namespace os {
namespace {

bool ParseServer(std::string text, IpAddress& out) {
    if (auto zone = text.find('%'); zone != std::string::npos) text.resize(zone);
    std::array<uint8_t, 16> bytes{};
    if (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        out = IpAddress::V4({bytes[0], bytes[1], bytes[2], bytes[3]});
        return true;
    }
    if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        out = IpAddress::V6(bytes);
        return true;
    }
    return false;
}

}  // namespace

ResolverConfiguration ParseResolverConfiguration(std::string_view text) {
    ResolverConfiguration config;
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        if (auto comment = line.find_first_of("#;"); comment != std::string::npos) line.resize(comment);
        std::istringstream words(line);
        std::string keyword, word;
        if (!(words >> keyword)) continue;
        if (keyword == "nameserver") {
            IpAddress server;
            if (words >> word && ParseServer(word, server)) config.servers.push_back(server);
        } else if (keyword == "search") {
            config.search.clear();
            while (words >> word) config.search.push_back(Utf8ToWideLossy(word));
        } else if (keyword == "domain") {
            if (words >> word) config.domain = Utf8ToWideLossy(word);
        }
    }
    return config;
}

ResolverConfiguration ReadResolverConfiguration() {
    const Expected<std::string> text = ReadWholeFile(L"/etc/resolv.conf");
    if (!text) return {};
    return ParseResolverConfiguration(*text);
}

}  // namespace os
