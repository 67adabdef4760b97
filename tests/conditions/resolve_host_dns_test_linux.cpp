// "network.canResolveHost" against a real DNS server: dnsmasq on loopback in
// a private network and mount namespace whose resolver configuration names
// it, answering from a records file.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>

#include "network_test_support.h"
#include "os/dns_query.h"
#include "support/namespace_support_linux.h"

namespace condition_testing {
namespace {

using network_test::ChildOutcome;
using Product::Integration::ConditionManager::SharedResolver;

// dnsmasq in the foreground, answering only from `records`.
class DnsServer {
public:
    explicit DnsServer(const std::string& records) {
        const std::string hosts = "--addn-hosts=" + records;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execlp("dnsmasq", "dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--listen-address=127.0.0.1",
                     "--port=53", "--bind-interfaces", "--no-resolv", "--no-hosts", hosts.c_str(), "--user=root",
                     "--log-facility=/dev/null", static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~DnsServer() { Stop(); }
    bool Started() const { return pid_ > 0; }
    void Stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {}
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

std::string Write(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    return out ? "" : "cannot write " + path + "\n";
}

// In a child of its own: a name with only an AAAA record resolves, an unknown
// one does not, and once the server is gone the next provider change turns
// the value false and notifies.
TEST(CanResolveHostDns, AnswersFromARealServerAndTurnsFalseWhenItStops) {
    const ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace(
        [] {
            char dirTemplate[] = "/tmp/cr-dns-XXXXXX";
            const char* dir = ::mkdtemp(dirTemplate);
            if (!dir) return std::string("mkdtemp failed\n");
            const std::string records = std::string(dir) + "/records", resolv = std::string(dir) + "/resolv.conf";
            std::string failures = Write(records, "fd00:53::7 v6only.test\n") +
                                   Write(resolv, "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n") +
                                   network_test::Shell("ip link set lo up");
            if (::mount(resolv.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
                return failures + "cannot bind the resolver configuration: " + std::strerror(errno) + "\n";
            DnsServer server(records);
            if (!server.Started()) return failures + "cannot start dnsmasq\n";
            if (!testing_support::Eventually([] { return os::HasDnsRecord(L"v6only.test", os::DnsRecordType::kAAAA); }))
                return failures + "dnsmasq does not answer\n";
            if (os::HasDnsRecord(L"v6only.test", os::DnsRecordType::kA)) failures += "an A record where none is\n";

            SharedResolver resolver(ResolverOptions(nullptr));  // real DNS
            ResolveBench::resolver = &resolver;
            {
                Bench bench;
                ResolveTestManager manager;
                if (manager.Init(bench.host.main()) != 0) return failures + "manager Init failed\n";
                int32_t error = 0;
                ConditionPtr v6 = manager.CreateCondition(
                    ParseJson(R"({"type":"network.canResolveHost","data":{"address":"v6only.test"}})"), &error, 0);
                ConditionPtr unknown = manager.CreateCondition(
                    ParseJson(R"({"type":"network.canResolveHost","data":{"address":"unknown.test"}})"), &error, 1);
                if (!v6 || !unknown) return failures + "cannot build the conditions\n";
                // The conditions had their first answers when later
                // subscribers of their names have theirs.
                ResolverAnswers v6Answered, unknownAnswered;
                if (!resolver.Subscribe(&v6Answered, L"v6only.test") ||
                    !resolver.Subscribe(&unknownAnswered, L"unknown.test") || !v6Answered.WaitForCount(1) ||
                    !unknownAnswered.WaitForCount(1))
                    failures += "no first answers\n";
                resolver.Unsubscribe(&v6Answered);
                resolver.Unsubscribe(&unknownAnswered);
                bool state = false;
                if (v6->GetState(&state, false) != 0 || !state) failures += "v6only.test does not resolve\n";
                if (unknown->GetState(&state, false) != 0 || state) failures += "unknown.test resolves\n";

                Recorder recorder;
                if (v6->Subscribe(&recorder) != 0) failures += "Subscribe failed\n";
                server.Stop();
                bench.provider.NotifySubscribers();
                if (!recorder.WaitForCount(1) || recorder.States() != std::vector<bool>{false})
                    failures += "the change after the server stopped did not notify false\n";
                static_cast<void>(v6->Unsubscribe(&recorder));
                v6.reset();
                unknown.reset();
                if (manager.Uninit() != 0) failures += "manager Uninit failed\n";
            }
            ResolveBench::resolver = nullptr;
            ::umount("/etc/resolv.conf");
            network_test::Shell("rm -rf " + std::string(dir));
            return failures;
        },
        network_test::PrivateMounts::kYes);
    if (outcome.result == ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, ChildOutcome::Result::kPassed) << outcome.report;
}

// A DNS server that takes questions and never answers (a bound UDP socket
// that nobody reads): each question waits for the resolver's time-out.
// Building and freeing a host-resolution condition, and a provider change
// that reaches another network condition, do not wait for it.
TEST(CanResolveHostDns, AServerThatNeverAnswersDelaysNoCaller) {
    const ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace(
        [] {
            char dirTemplate[] = "/tmp/cr-dns-XXXXXX";
            const char* dir = ::mkdtemp(dirTemplate);
            if (!dir) return std::string("mkdtemp failed\n");
            std::string failures =
                network_test::UseResolverConfiguration(dir, "nameserver 127.0.0.1\noptions timeout:3 attempts:1\n");
            if (!failures.empty()) return failures;
            const int silent = network_test::BindSilentDnsServer(failures);
            if (silent < 0) return failures;
            const auto quick = [](const std::function<void()>& step) {
                const auto start = std::chrono::steady_clock::now();
                step();
                return std::chrono::steady_clock::now() - start < std::chrono::seconds(2);
            };
            // The process's own resolver: its hung threads are let go at the end.
            ResolveBench::resolver = &SharedResolver::Shared();
            {
                Bench bench;
                ResolveTestManager manager;
                if (manager.Init(bench.host.main()) != 0) return failures + "manager Init failed\n";
                int32_t error = 0;
                ConditionPtr first, second;
                if (!quick([&] {
                        first = manager.CreateCondition(
                            ParseJson(R"({"type":"network.canResolveHost","data":{"address":"hung.test"}})"), &error,
                            0);
                        second = manager.CreateCondition(
                            ParseJson(R"({"type":"network.canResolveHost","data":{"address":"other.test"}})"), &error,
                            1);
                    }))
                    failures += "building the conditions waited for DNS\n";
                ConditionPtr ip = manager.CreateCondition(
                    ParseJson(R"({"type":"network.IP","data":{"address":"10.1.2.3"}})"), &error, 2);
                if (!first || !second || !ip) return failures + "cannot build the conditions\n";
                Recorder recorder;
                if (ip->Subscribe(&recorder) != 0) failures += "Subscribe failed\n";
                bench.provider.SetState(StateBuilder().Unicast({L"10.1.2.3"}).state);
                if (!quick([&] { bench.provider.NotifySubscribers(); }) || recorder.States() != std::vector<bool>{true})
                    failures += "a provider change waited for DNS\n";
                bool state = true;
                if (!quick([&] { static_cast<void>(first->GetState(&state, true)); }) || state)
                    failures += "a recomputation waited for DNS, or found an answer\n";
                static_cast<void>(ip->Unsubscribe(&recorder));
                if (!quick([&] {
                        first.reset();
                        second.reset();
                        ip.reset();
                    }))
                    failures += "freeing the conditions waited for DNS\n";
                if (manager.Uninit() != 0) failures += "manager Uninit failed\n";
            }
            ResolveBench::resolver = nullptr;
            ::close(silent);
            ::umount("/etc/resolv.conf");
            network_test::Shell("rm -rf " + std::string(dir));
            return failures;
        },
        network_test::PrivateMounts::kYes);
    if (outcome.result == ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, ChildOutcome::Result::kPassed) << outcome.report;
}

}  // namespace
}  // namespace condition_testing
