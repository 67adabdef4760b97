#include "os/standard_streams.h"

#include <unistd.h>

#include <cerrno>

#include "os/utf8.h"

namespace os {

namespace {
bool WriteAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}
}  // namespace

size_t ReadStandardInput(char* buffer, size_t size) noexcept {
    for (;;) {
        const ssize_t n = ::read(0, buffer, size);
        if (n >= 0) return static_cast<size_t>(n);
        if (errno != EINTR) return 0;
    }
}

bool WriteStandardOutput(std::string_view bytes) noexcept { return WriteAll(1, bytes); }
bool WriteStandardError(std::string_view bytes) noexcept { return WriteAll(2, bytes); }

std::vector<std::wstring> CommandLineArguments(int argc, char** argv) {
    std::vector<std::wstring> arguments;
    for (int i = 1; i < argc; ++i) arguments.push_back(Utf8ToWideLossy(argv[i]));
    return arguments;
}

}  // namespace os
