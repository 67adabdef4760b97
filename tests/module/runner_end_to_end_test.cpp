// The module as its host runs it: loaded by path, its agent, runner and
// condition manager created through the two exports, the reference host's
// services around them, and console commands through the agent. A rule over
// a real file leads to a method-set run through the host's policy runner and
// to the run event; the state survives a restart over the same settings file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <json/value.h>

#include "host/method_call.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "host/user_manager.h"
#include "hosted_module.h"
#include "model/conditional_runner.h"
#include "os/directory.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/integration.h"
#include "qv/serv_plugin.h"
#include "qv/status.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"
#include "support/waiting.h"
#ifdef __linux__
#include "support/namespace_support_linux.h"
#endif

namespace {

using module_test::HostedModule;
using module_test::NetworkSource;
using Product::Integration::ConditionalRunner::IConditionalRunner;
using testing_support::Eventually;
using testing_support::LoadedModule;
using testing_support::ParseJson;

std::string Quoted(const std::wstring& text) { return Json::Value(os::WideToUtf8Lossy(text)).toStyledString(); }

// A rule over a file and an always true rule name one method set; a third is
// always true but names a method set nobody sent.
std::string RulesOver(const std::wstring& file) {
    const std::string exists = R"({"type":"Test.FileExists","data":{"filePath":)" + Quoted(file) + "}}";
    return R"({"rules":[
        {"id":"r1","displayName":"one","methodSetId":"M","matchIf":)" +
           exists + R"(},
        {"id":"r2","displayName":"two","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}},
        {"id":"r3","displayName":"lost","methodSetId":"nobody","matchIf":{"type":"boolean.TRUE"}}]})";
}
constexpr const char* kMethodSet =
    R"({"id":"M","displayName":"the method set","methods":[{"plugin":"P","method":"m"}]})";

void CreateFile(const std::wstring& path) { ASSERT_TRUE(os::OpenFile(path, L"wb")); }

class RunnerEndToEnd : public testing::Test {
protected:
    testing_support::TempDir dir_;
    const std::wstring settings_ = dir_.File(L"settings.json");
    const std::wstring watched_ = dir_.File(L"watched");
};

TEST_F(RunnerEndToEnd, AFileThatAppearsRunsItsMethodSetOnceWithOneEvent) {
    testing_support::LogCapture capture;
    HostedModule hosted(settings_);
    ASSERT_EQ(hosted.Command(L"SetMethodSet", kMethodSet), 0);
    ASSERT_EQ(hosted.Command(L"SetRules", RulesOver(watched_)), 0);
    // The always true rule runs its method set; the rule without one runs nothing.
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 1 && hosted.Events().size() == 1; }));
    EXPECT_EQ(hosted.Events()[0].payload["data"][0]["rulesMatched"], ParseJson(R"(["r2"])"));
    EXPECT_TRUE(capture.Contains(L"method (nobody) was not found"));

    CreateFile(watched_);
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 2 && hosted.Events().size() == 2; }));
    const auto event = hosted.Events()[1];
    EXPECT_EQ(event.name, L"Product.ConditionalRunner.MethodSetsRun");
    EXPECT_EQ(event.payload["data"].size(), 1u);
    EXPECT_EQ(event.payload["data"][0]["error"], 0);
    EXPECT_EQ(event.payload["data"][0]["rulesMatched"], ParseJson(R"(["r1","r2"])"));
    EXPECT_EQ(event.payload["data"][0]["response"]["results"][0]["result"], 0);

    // An evaluation that finds the same rules true runs nothing.
    capture.Clear();
    ASSERT_EQ(hosted.Command(L"SetMethodSet", R"({"id":"other","displayName":"","methods":[]})"), 0);
    EXPECT_TRUE(Eventually([&] { return capture.Contains(L"Nothing changed from the last run"); }));
    EXPECT_EQ(hosted.Runs(), 2u);
    EXPECT_EQ(hosted.Events().size(), 2u);
}

TEST_F(RunnerEndToEnd, ARestartRestoresTheStateAndRunsAgainOnlyAfterAnInterruptedRun) {
    {
        HostedModule first(settings_);
        ASSERT_EQ(first.Command(L"SetMethodSet", kMethodSet), 0);
        ASSERT_EQ(first.Command(L"SetRules", RulesOver(watched_)), 0);
        ASSERT_TRUE(Eventually([&] { return first.Runs() == 1; }));
        CreateFile(watched_);
        ASSERT_TRUE(Eventually([&] { return first.Runs() == 2; }));
    }
    {
        testing_support::LogCapture capture;
        HostedModule second(settings_);
        Json::Value rules, ids, enabled;
        EXPECT_EQ(second.Command(L"GetRules", "{}", &rules), 0);
        EXPECT_EQ(rules["rules"].size(), 3u);
        EXPECT_EQ(second.Command(L"GetMethodSetIds", "{}", &ids), 0);
        EXPECT_EQ(ids["ids"], ParseJson(R"(["M"])"));
        EXPECT_EQ(second.Command(L"IsEnabled", "{}", &enabled), 0);
        EXPECT_EQ(enabled["enabled"], true);
        // The stored last run matches what is true now: nothing runs again.
        EXPECT_TRUE(Eventually([&] { return capture.Contains(L"Nothing changed from the last run"); }));
        EXPECT_EQ(second.Runs(), 0u);
    }
    {
        // A run that was under way when the process ended is not trusted.
        auto opened = host::SettingsStore::Open(settings_);
        ASSERT_TRUE(opened) << os::WideToUtf8Lossy(opened.status().message());
        const std::unique_ptr<host::SettingsStore> store = std::move(*opened);
        IEPSettingsNode* flag = nullptr;
        ASSERT_EQ(store->OpenForWrite(L"/MethodsRunner/methodsRunStarted", &flag), 0);
        EXPECT_EQ(flag->SetBool(L"", true), 0);
        EXPECT_EQ(flag->Commit(), 0);
        flag->Release();
    }
    HostedModule third(settings_);
    EXPECT_TRUE(Eventually([&] { return third.Runs() == 1; }));
}

// A method set that could not reach its agent is retried 30 s later (by the
// host's clock), once; a retry that succeeds is not retried again.
TEST_F(RunnerEndToEnd, ARunThatFoundTheAgentDisconnectedIsRetriedOnce) {
    HostedModule hosted(settings_);
    hosted.host().policyRunner().SetResult(L"P", L"m", qv::status::kNotConnected);
    ASSERT_EQ(hosted.Command(L"SetMethodSet", kMethodSet), 0);
    ASSERT_EQ(hosted.Command(L"SetRules", RulesOver(watched_)), 0);
    // The pass ends by scheduling its retry on the runner's queue.
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 1 && hosted.host().queues().PendingCount() == 1; }));
    hosted.host().policyRunner().SetResult(L"P", L"m", 0);

    hosted.host().manualClock()->Advance(29'000);
    ASSERT_TRUE(hosted.host().queues().WaitIdle());
    EXPECT_EQ(hosted.Runs(), 1u);
    hosted.host().manualClock()->Advance(1'000);
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 2; }));

    hosted.host().manualClock()->Advance(60'000);
    ASSERT_TRUE(hosted.host().queues().WaitIdle());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(hosted.Runs(), 2u);
    const auto runs = hosted.host().policyRunner().Runs();
    EXPECT_EQ(runs[0].status, qv::status::kNotConnected);
    EXPECT_EQ(runs[1].status, 0);
}

// Directory rules through the whole module: the user and computer managers
// of the host drive the runner's method-set runs.
TEST_F(RunnerEndToEnd, DirectoryRulesFollowTheHostsUsers) {
    testing_support::LogCapture capture;
    HostedModule hosted(settings_);
    host::UserManager& users = hosted.host().users();
    ASSERT_EQ(hosted.Command(L"SetMethodSet", kMethodSet), 0);
    Json::Value response;
    ASSERT_EQ(hosted.Command(L"SetRules", R"({"rules":[
        {"id":"group","displayName":"","methodSetId":"M",
         "matchIf":{"type":"ad.Group","data":{"sid":"S-1-5-21-1-2-3-513"}}},
        {"id":"user","displayName":"","methodSetId":"M",
         "matchIf":{"type":"ad.User","data":{"sid":"S-1-5-21-1-2-3-2000"}}}]})"),
              0);
    const auto member = [](const wchar_t* sid, const wchar_t* name) {
        return Product::UserManager::UserInfo{sid, name, L"corp.local", {{L"S-1-5-21-1-2-3-513", L""}}};
    };
    ASSERT_EQ(users.LogOn(member(L"S-1-5-21-1-2-3-1104", L"ann")), 0);
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 1 && hosted.Events().size() == 1; }));
    EXPECT_EQ(hosted.Events().back().payload["data"][0]["rulesMatched"], ParseJson(R"(["group"])"));
    // A second member changes nothing; one of the two logging off makes the
    // rule false, so the next log-on runs the method set again.
    capture.Clear();  // the pass before the first log-on found the rule false too
    ASSERT_EQ(users.LogOn(member(L"S-1-5-21-1-2-3-1105", L"bob")), 0);
    ASSERT_EQ(users.LogOff(L"S-1-5-21-1-2-3-1105"), 0);
    ASSERT_TRUE(Eventually([&] { return capture.Contains(L"Rule with id group has state false"); }));
    EXPECT_EQ(hosted.Runs(), 1u);
    ASSERT_EQ(users.LogOn(member(L"S-1-5-21-1-2-3-1106", L"eve")), 0);
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 2; }));
    // A user SID in lower case matches the rule's upper-case one.
    ASSERT_EQ(users.LogOn(Product::UserManager::UserInfo{L"s-1-5-21-1-2-3-2000", L"dan", L"corp.local", {}}), 0);
    ASSERT_TRUE(Eventually([&] { return hosted.Runs() == 3 && hosted.Events().size() == 3; }));
    EXPECT_EQ(hosted.Events().back().payload["data"][0]["rulesMatched"], ParseJson(R"(["group","user"])"));

    // A local account's SID is refused where the machine's account domain is known.
    const std::wstring host = os::GetHostAccountDomain().sid;
    const std::wstring local = host.empty() ? L"S-1-5-32-544" : host + L"-1001";
    EXPECT_EQ(hosted.Command(L"SetRules",
                             R"({"rules":[{"id":"local","displayName":"","methodSetId":"M","matchIf":{"type":"ad.User",
                                 "data":{"sid":)" +
                                 Quoted(local) + "}}}]}",
                             &response),
              qv::status::kInvalidParameter);
    EXPECT_EQ(response["rulesErrors"], ParseJson(R"([{"index":0,"error":87}])"));
}

#ifdef __linux__
// Network rules over the real kernel, in a private network namespace: a rule
// on an address and an AND of that address with a default route follow the
// address and the route as they come and go, each flip notified once, and
// each rule that becomes true runs its method set.
TEST_F(RunnerEndToEnd, NetworkRulesFollowAddressesAndTheDefaultRoute) {
    const std::wstring settings = settings_;
    const network_test::ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace([&settings] {
        using network_test::Shell;
        // One command after the other (the operands of + have no order).
        std::string failures;
        for (const char* command : {"ip link set lo up", "ip link add cr-veth0 type veth peer name cr-veth1",
                                    "ip link set cr-veth0 up", "ip link set cr-veth1 up"})
            failures += Shell(command);
        testing_support::LogCapture capture;
        HostedModule hosted(settings, NetworkSource::kModule);
        const auto check = [&](bool ok, const std::string& what) {
            if (ok) return;
            failures += what + " (runs:";
            for (const auto& run : hosted.host().policyRunner().Runs())
                failures += " " + os::WideToUtf8Lossy(run.methods.empty() ? L"-" : run.methods[0].method);
            failures += ")\n";
        };
        check(hosted.Command(L"SetMethodSet",
                             R"({"id":"A","displayName":"","methods":[{"plugin":"P","method":"a"}]})") == 0 &&
                  hosted.Command(L"SetMethodSet",
                                 R"({"id":"G","displayName":"","methods":[{"plugin":"P","method":"g"}]})") == 0,
              "SetMethodSet failed");
        const std::string ip = R"({"type":"network.IP","data":{"address":"10.79.0.0/24"}})";
        const std::string gateway = R"({"type":"network.Gateway","data":{"address":"10.79.0.2"}})";
        check(hosted.Command(L"SetRules", R"({"rules":[
            {"id":"address","displayName":"","methodSetId":"A","matchIf":)" +
                                              ip + R"(},
            {"id":"routed","displayName":"","methodSetId":"G",
             "matchIf":{"type":"boolean.AND","data":{"conditions":[)" +
                                              ip + "," + gateway + "]}}}]}") == 0,
              "SetRules failed");

        // A change of the true rules runs the method set of every true rule.
        using Runs = std::vector<std::wstring>;
        const auto ranOneOf = [&hosted](std::vector<Runs> expected) {
            return Eventually([&] {
                Runs all;
                for (const auto& run : hosted.host().policyRunner().Runs()) all.push_back(run.methods.at(0).method);
                return std::find(expected.begin(), expected.end(), all) != expected.end();
            });
        };
        const auto ran = [&ranOneOf](Runs methods) { return ranOneOf({std::move(methods)}); };
        failures += Shell("ip addr add 10.79.0.1/24 dev cr-veth0");
        check(ran({L"a"}), "the address did not run A");
        failures += Shell("ip route add default via 10.79.0.2 dev cr-veth0");
        check(ran({L"a", L"a", L"g"}), "the default route did not run A and G");
        // Removing the address takes the route with it: both rules turn false.
        failures += Shell("ip addr del 10.79.0.1/24 dev cr-veth0");
        check(Eventually([&] { return capture.Contains(L"Rule with id address has state false"); }),
              "the rule did not turn false");
        // The conditions of the two rules flip one after the other. With no
        // quiet period a pass may fall between them and find one rule still
        // true: a change of the true rules, so it runs that rule's method set
        // once more (A or G). What follows is the same either way.
        const auto thenAll = [](const Runs& after) {
            std::vector<Runs> all;
            for (const Runs& between : {Runs{}, Runs{L"a"}, Runs{L"g"}}) {
                Runs runs = {L"a", L"a", L"g"};
                runs.insert(runs.end(), between.begin(), between.end());
                runs.insert(runs.end(), after.begin(), after.end());
                all.push_back(std::move(runs));
            }
            return all;
        };
        failures += Shell("ip addr add 10.79.0.1/24 dev cr-veth0");
        check(ranOneOf(thenAll({L"a"})), "the address again did not run A");
        failures += Shell("ip route add default via 10.79.0.2 dev cr-veth0");
        check(ranOneOf(thenAll({L"a", L"a", L"g"})), "the default route again did not run A and G");

        // No condition notified more than once per flip (true, false, true).
        // A flip may also reach the parent without a notification: a parent
        // recomputing its children takes a leaf's new value first, and the
        // leaf's own recomputation then finds nothing changed.
        const auto notified = [&capture](const std::wstring& type, const wchar_t* state) {
            const std::wstring line = L"Condition [" + type + L"] notify [" + state + L"]";
            const auto messages = capture.Messages(logging::kTrace);
            return std::count(messages.begin(), messages.end(), line);
        };
        for (const auto& [type, conditions] :
             {std::pair<std::wstring, long>{L"network.IP", 2}, {L"network.Gateway", 1}, {L"boolean.AND", 1}}) {
            const long up = notified(type, L"TRUE"), down = notified(type, L"FALSE");
            if (up == 0 || up > 2 * conditions || down > conditions)
                failures += os::WideToUtf8Lossy(type) + ": " + std::to_string(up) + " TRUE and " +
                            std::to_string(down) + " FALSE notifications\n";
        }
        return failures;
    });
    if (outcome.result == network_test::ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, network_test::ChildOutcome::Result::kPassed) << outcome.report;
}
#endif

#if GTEST_HAS_DEATH_TEST
// A host may end its process without freeing its rules' trees: the threads
// that serve file conditions still alive must not keep the process from
// ending. On Windows the system ends those threads before the module's
// static objects are destroyed, so nothing may join them there; on Linux
// they still run, and log, while static objects are destroyed.
TEST_F(RunnerEndToEnd, TheProcessEndsWithFileConditionsAlive) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto* hosted = new HostedModule(settings_);  // never freed, as by such a host
            if (hosted->Command(L"SetRules", RulesOver(watched_)) != 0) std::_Exit(3);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
