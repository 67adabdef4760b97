// cr-host with host-resolution rules while the DNS server takes questions
// and never answers (a bound UDP socket on 127.0.0.1:53 that nobody reads, in
// a private network and mount namespace whose resolver configuration names
// it): the rules are set and the host quits without waiting for DNS. And the
// host's threads do not grow with the number of host-resolution rules.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host_process.h"
#include "os/utf8.h"
#include "support/log_capture.h"
#include "support/namespace_support_linux.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;
using network_test::ChildOutcome;

constexpr const char* kResolveRules = R"({"rules":[
  {"id":"r1","displayName":"one","methodSetId":"M","matchIf":{"type":"network.canResolveHost","data":{"address":"one.test"}}},
  {"id":"r2","displayName":"two","methodSetId":"M","matchIf":{"type":"network.canResolveHost","data":{"address":"two.test"}}}]})";

std::string ScenarioWithSilentServer(const std::string& dir) {
    std::string failures =
        network_test::UseResolverConfiguration(dir, "nameserver 127.0.0.1\noptions timeout:3 attempts:1\n");
    if (!failures.empty()) return failures;
    const int silent = network_test::BindSilentDnsServer(failures);
    if (silent < 0) return failures;

    const std::wstring state = os::Utf8ToWideLossy(dir + "/state.json"), log = os::Utf8ToWideLossy(dir + "/log.txt");
    HostProcess host({L"--state", state, L"--log", log});
    if (!host.Started()) return failures + "cannot start cr-host\n";
    if (host.Method("SetMethodSet",
                    Parse(R"({"id":"M","displayName":"M","methods":[{"plugin":"P","method":"m"}]})"))["status"] != 0)
        failures += "SetMethodSet failed\n";
    // Each name's questions take 6 s here (two record types, 3 s each).
    const auto setAt = std::chrono::steady_clock::now();
    const Json::Value answer = host.Method("SetRules", Parse(kResolveRules));
    const auto setTook = std::chrono::steady_clock::now() - setAt;
    if (answer["status"] != 0) failures += "SetRules failed: " + answer.toStyledString();
    if (setTook > std::chrono::seconds(1)) failures += "SetRules waited for DNS\n";

    const auto quitAt = std::chrono::steady_clock::now();
    if (host.Host(Parse(R"({"host":"quit"})"))["status"] != 0) failures += "quit failed\n";
    const std::optional<int> status = host.process().Wait(10'000);
    const auto quitTook = std::chrono::steady_clock::now() - quitAt;
    if (status != 0) failures += "cr-host did not end well: " + host.ErrorText() + "\n";
    if (quitTook > std::chrono::seconds(2)) failures += "quit waited for DNS\n";
    // The questions were still hanging when the last condition left.
    if (!testing_support::FileContains(log, L"DNS question(s) still in progress"))
        failures += "no question was left hanging: is the server silent?\n";
    ::close(silent);
    ::umount("/etc/resolv.conf");
    return failures;
}

// Threads of the processes this one started (cr-host here), or 0 when there
// is not exactly one such process.
size_t ChildThreads() {
    std::vector<std::string> children;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        for (std::string pid; list >> pid;) children.push_back(pid);
    }
    if (children.size() != 1) return 0;
    size_t threads = 0;
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator("/proc/" + children[0] + "/task", error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error))
        ++threads;
    return threads;
}

std::string RulesResolving(size_t count) {
    std::string rules;
    for (size_t i = 0; i < count; ++i) {
        const std::string id = std::to_string(i);
        rules += std::string(rules.empty() ? "" : ",") + R"({"id":"r)" + id +
                 R"(","displayName":"r","methodSetId":"M",)" +
                 R"("matchIf":{"type":"network.canResolveHost","data":{"address":"host)" + id + R"(.test"}}})";
    }
    return R"({"rules":[)" + rules + "]}";
}

// The host's thread count once it stays the same for a few samples.
size_t SettledThreads() {
    size_t last = 0, same = 0;
    testing_support::Eventually([&] {
        const size_t now = ChildThreads();
        same = now == last ? same + 1 : 0;
        last = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return same >= 4;
    });
    return last;
}

std::string ScenarioWithUnreachableServer(const std::string& dir) {
    // Nothing listens: every question fails at once.
    std::string failures = network_test::UseResolverConfiguration(dir, "nameserver 127.0.0.1\n");
    if (!failures.empty()) return failures;
    const std::wstring state = os::Utf8ToWideLossy(dir + "/state.json"), log = os::Utf8ToWideLossy(dir + "/log.txt");
    HostProcess host({L"--state", state, L"--log", log});
    if (!host.Started()) return failures + "cannot start cr-host\n";
    if (host.Method("SetMethodSet",
                    Parse(R"({"id":"M","displayName":"M","methods":[{"plugin":"P","method":"m"}]})"))["status"] != 0)
        failures += "SetMethodSet failed\n";
    if (host.Method("SetRules", Parse(RulesResolving(1)))["status"] != 0) failures += "SetRules failed\n";
    const size_t withOne = SettledThreads();
    if (withOne == 0) failures += "cannot count the host's threads\n";
    if (host.Method("SetRules", Parse(RulesResolving(40)))["status"] != 0) failures += "SetRules failed\n";
    size_t withForty = 0;
    if (!testing_support::Eventually([&] { return (withForty = ChildThreads()) <= withOne; }))
        failures += "40 rules keep " + std::to_string(withForty) + " threads, 1 rule " + std::to_string(withOne) + "\n";
    if (host.Finish() != 0) failures += "cr-host did not end well: " + host.ErrorText() + "\n";
    ::umount("/etc/resolv.conf");
    return failures;
}

TEST(CrHostResolve, TheHostsThreadsDoNotGrowWithTheResolveRules) {
    testing_support::TempDir dir;
    const std::string path = os::WideToUtf8Lossy(dir.path());
    const ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace(
        [&] { return ScenarioWithUnreachableServer(path); }, network_test::PrivateMounts::kYes);
    if (outcome.result == ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, ChildOutcome::Result::kPassed) << outcome.report;
}

TEST(CrHostResolve, RulesAreSetAndTheHostQuitsWhileDnsNeverAnswers) {
    testing_support::TempDir dir;
    const std::string path = os::WideToUtf8Lossy(dir.path());
    const ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace(
        [&] { return ScenarioWithSilentServer(path); }, network_test::PrivateMounts::kYes);
    if (outcome.result == ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, ChildOutcome::Result::kPassed) << outcome.report;
}

}  // namespace
