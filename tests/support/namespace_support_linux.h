#pragma once
// Running a piece of a test in a private network namespace of its own, in a
// child process, so that the test program's own namespace is never touched.
#include <functional>
#include <string>

namespace network_test {

struct ChildOutcome {
    enum class Result { kPassed, kFailed, kSkipped };
    Result result = Result::kFailed;
    std::string report;  // the failures, or why it was skipped
};

// Which namespaces the child leaves: the network only, or also the mounts
// (so that it may bind files over system ones, such as the resolver
// configuration, without the rest of the machine seeing them).
enum class PrivateMounts : bool { kNo, kYes };

// Forks; the child enters a new network namespace (unshare -n, with -m when
// asked), runs `scenario` and exits. The scenario returns its failures, one
// per line, or "" when it passed. Skipped (with the reason) when the
// namespace cannot be made, as for a user without CAP_SYS_ADMIN.
ChildOutcome RunInPrivateNetworkNamespace(const std::function<std::string()>& scenario,
                                          PrivateMounts mounts = PrivateMounts::kNo);

// Runs `command` through the shell; "" when it succeeded, else a line
// naming it and its output.
std::string Shell(const std::string& command);

// In a child with private mounts: writes `resolvConf` to `dir`/resolv.conf
// and binds it over /etc/resolv.conf (loopback brought up first). "" when
// done, else the failures, one per line.
std::string UseResolverConfiguration(const std::string& dir, const std::string& resolvConf);

// A DNS server that takes questions and never answers: a UDP socket bound to
// 127.0.0.1:53 that nobody reads. Its descriptor (close it when done), or -1
// with the reason added to `failures`.
int BindSilentDnsServer(std::string& failures);

}  // namespace network_test
