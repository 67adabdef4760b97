// "network.canResolveHost" against a real DNS server: dnsmasq on loopback in
// a private network and mount namespace whose resolver configuration names
// it, answering from a records file.
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "network_test_support.h"
#include "os/dns_query.h"
#include "support/namespace_support_linux.h"

namespace condition_testing {
namespace {

using network_test::ChildOutcome;

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
// one does not, and once the server is gone the next pass turns the value
// false and notifies.
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

            ResolveBench::timers.clear();
            ResolveBench::names = nullptr;  // real DNS
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
                bool state = false;
                if (v6->GetState(&state, false) != 0 || !state) failures += "v6only.test does not resolve\n";
                if (unknown->GetState(&state, false) != 0 || state) failures += "unknown.test resolves\n";

                Recorder recorder;
                if (v6->Subscribe(&recorder) != 0) failures += "Subscribe failed\n";
                ManualPassTimer* timer = ResolveBench::timers.at(0);
                if (!timer->Pass() || recorder.Count() != 0)
                    failures += "a pass with the server up changed the value\n";
                server.Stop();
                if (!timer->Pass() || recorder.States() != std::vector<bool>{false})
                    failures += "the pass after the server stopped did not notify false\n";
                static_cast<void>(v6->Unsubscribe(&recorder));
                v6.reset();
                unknown.reset();
                if (manager.Uninit() != 0) failures += "manager Uninit failed\n";
            }
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
