#include "support/namespace_support_linux.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace network_test {
namespace {

constexpr int kSkipStatus = 77;

void WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0 && errno != EINTR) return;
        if (n > 0) done += static_cast<size_t>(n);
    }
}

}  // namespace

ChildOutcome RunInPrivateNetworkNamespace(const std::function<std::string()>& scenario, PrivateMounts mounts) {
    ChildOutcome outcome;
    int fds[2];
    if (::pipe(fds) != 0) {
        outcome.report = std::string("pipe: ") + std::strerror(errno);
        return outcome;
    }
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        outcome.report = std::string("fork: ") + std::strerror(errno);
        ::close(fds[0]);
        ::close(fds[1]);
        return outcome;
    }
    if (child == 0) {
        ::close(fds[0]);
        const int flags = CLONE_NEWNET | (mounts == PrivateMounts::kYes ? CLONE_NEWNS : 0);
        if (::unshare(flags) != 0) {
            WriteAll(fds[1],
                     std::string("cannot make a private network namespace (unshare -n): ") + std::strerror(errno));
            ::_exit(kSkipStatus);
        }
        // Mounts made in the child must not propagate back to the machine.
        if (mounts == PrivateMounts::kYes && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            WriteAll(fds[1], std::string("cannot make the mounts private: ") + std::strerror(errno));
            ::_exit(kSkipStatus);
        }
        const std::string failures = scenario();
        WriteAll(fds[1], failures);
        ::_exit(failures.empty() ? 0 : 1);
    }
    ::close(fds[1]);
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n > 0) {
            outcome.report.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(fds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        outcome.result = ChildOutcome::Result::kPassed;
    else if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipStatus)
        outcome.result = ChildOutcome::Result::kSkipped;
    else if (!WIFEXITED(status))
        outcome.report += "\nthe child ended abnormally (status " + std::to_string(status) + ")";
    return outcome;
}

std::string Shell(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return "cannot run: " + command + "\n";
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
    const int status = ::pclose(pipe);
    if (status == 0) return "";
    return "failed: " + command + ": " + output + "\n";
}

std::string UseResolverConfiguration(const std::string& dir, const std::string& resolvConf) {
    const std::string resolv = dir + "/resolv.conf";
    std::ofstream(resolv) << resolvConf;
    std::string failures = Shell("ip link set lo up");
    if (::mount(resolv.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
        failures += std::string("cannot bind the resolver configuration: ") + std::strerror(errno) + "\n";
    return failures;
}

int BindSilentDnsServer(std::string& failures) {
    const int silent = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (silent < 0 || ::bind(silent, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        failures += std::string("cannot bind 127.0.0.1:53: ") + std::strerror(errno) + "\n";
        if (silent >= 0) ::close(silent);
        return -1;
    }
    return silent;
}

}  // namespace network_test
