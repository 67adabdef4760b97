// The whole road through cr-host as a separate process: rules and method
// sets sent over its console, a rule turning true, the policy run and the
// run event on its output; the state file across a clean restart and across
// a kill in the middle of a run; a stop in the middle of a run. (The retry
// of a run that found the agent disconnected waits 30 s: the module's
// end-to-end test covers it on the host's hand-driven clock.)
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "host/settings/settings_store.h"
#include "host_process.h"
#include "os/file_io.h"
#include "os/file_system.h"
#include "os/utf8.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::IsEvent;
using crhost_test::IsPolicyRun;
using crhost_test::Parse;
using testing_support::Eventually;

// The runner evaluates first a quiet period after it starts (5 s by
// default, set before a command can shorten it); waits for that first
// evaluation allow for it.
constexpr std::chrono::seconds kFirstEvaluation{20};

constexpr const char* kMethodSet =
    R"({"id":"M","displayName":"the method set","methods":[{"plugin":"P","method":"m"}]})";

std::string Quoted(const std::wstring& text) { return Json::Value(os::WideToUtf8Lossy(text)).toStyledString(); }

// From now on every change is evaluated at once.
void EvaluateAtOnce(HostProcess& host) {
    EXPECT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":0,"maxPostponeTime":60}})"))["status"], 0);
}

void SendRules(HostProcess& host, const std::string& rules) {
    ASSERT_EQ(host.Method("SetMethodSet", Parse(kMethodSet))["status"], 0);
    const Json::Value answer = host.Method("SetRules", Parse(R"({"rules":)" + rules + "}"));
    ASSERT_EQ(answer["status"], 0);
    ASSERT_EQ(answer["response"]["rulesErrors"].size(), 0u);
}

constexpr const char* kAlwaysTrue =
    R"([{"id":"r1","displayName":"always","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}}])";

// The run-started flag as the state file holds it; null when not readable.
std::optional<bool> RunStartedFlag(const std::wstring& stateFile) {
    const auto opened = host::SettingsStore::Open(stateFile);
    if (!opened) return std::nullopt;
    const auto& store = *opened;
    IEPSettingsNode* node = nullptr;
    if (store->OpenForRead(L"/MethodsRunner/methodsRunStarted", &node) != 0) return std::nullopt;
    bool started = false;
    const int32_t status = node->GetBool(L"", started);
    node->Release();
    return status == 0 ? std::optional<bool>(started) : std::nullopt;
}

size_t Count(const HostProcess& host, const HostProcess::Predicate& predicate) {
    size_t count = 0;
    for (const Json::Value& line : host.Lines()) count += predicate(line) ? 1u : 0u;
    return count;
}

class CrHostRunner : public testing::Test {
protected:
    std::vector<std::wstring> Arguments(const std::wstring& log = L"log.txt") const {
        return {L"--state", state_, L"--log", dir_.File(log)};
    }

    testing_support::TempDir dir_;
    const std::wstring state_ = dir_.File(L"state.json");
};

TEST_F(CrHostRunner, ARuleTurningTrueRunsItsMethodSetAndReportsIt) {
    const std::wstring watched = dir_.File(L"watched");
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    EvaluateAtOnce(host);
    ASSERT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":5})"))["status"], 0);
    SendRules(host, R"([{"id":"r0","displayName":"always","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}},
        {"id":"r1","displayName":"file","methodSetId":"M","matchIf":{"type":"Test.FileExists","data":{"filePath":)" +
                        Quoted(watched) + "}}}]");

    // The policy run comes first, then the event that reports it.
    size_t runAt = 0, eventAt = 0;
    const auto run = host.WaitFor(IsPolicyRun(), 0, kFirstEvaluation, &runAt);
    ASSERT_TRUE(run) << host.ErrorText();
    EXPECT_EQ((*run)["policyRun"]["request"]["methods"], Parse(R"([{"plugin":"P","method":"m"}])"));
    EXPECT_EQ((*run)["policyRun"]["results"], Parse(R"([{"plugin":"P","method":"m","result":5}])"));
    auto event = host.WaitFor(IsEvent(), 0, testing_support::kPatience, &eventAt);
    ASSERT_TRUE(event);
    EXPECT_GT(eventAt, runAt);
    EXPECT_EQ((*event)["event"], "Product.ConditionalRunner.MethodSetsRun");
    EXPECT_EQ((*event)["payload"]["data"], Parse(R"([{"error":5,"rulesMatched":["r0"],
        "response":{"results":[{"plugin":"P","method":"m","result":5}]}}])"));
    EXPECT_EQ(host.Host(Parse(R"({"host":"rules"})"))["rules"],
              Parse(R"([{"id":"r0","methodSetId":"M","state":true},{"id":"r1","methodSetId":"M","state":false}])"));

    // The file appears: both rules are true, the method set runs once for both.
    ASSERT_TRUE(os::OpenFile(watched, L"wb"));
    event = host.WaitFor(IsEvent(), eventAt + 1, testing_support::kPatience, &eventAt);
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["payload"]["data"][0]["rulesMatched"], Parse(R"(["r0","r1"])"));
    EXPECT_EQ(host.Host(Parse(R"({"host":"rules"})"))["rules"][1]["state"], true);

    // It goes again: what stays true runs again.
    std::filesystem::remove(std::filesystem::path(watched));
    event = host.WaitFor(IsEvent(), eventAt + 1, testing_support::kPatience, &eventAt);
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["payload"]["data"][0]["rulesMatched"], Parse(R"(["r0"])"));

    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
    EXPECT_EQ(Count(host, IsPolicyRun()), 3u);
    EXPECT_EQ(Count(host, IsEvent()), 3u);
    EXPECT_TRUE(host.BadLines().empty());
}

TEST_F(CrHostRunner, ARestartResumesFromTheStateFileInTheWorkingDirectory) {
    // Without --state the store is a file in the working directory.
    {
        HostProcess first({L"--log", dir_.File(L"first.txt")}, dir_.path());
        ASSERT_TRUE(first.Started()) << os::WideToUtf8Lossy(first.startError());
        EvaluateAtOnce(first);
        SendRules(first, kAlwaysTrue);
        ASSERT_TRUE(first.WaitFor(IsEvent(), 0, kFirstEvaluation)) << first.ErrorText();
        EXPECT_EQ(first.Host(Parse(R"({"host":"quit"})"))["status"], 0);
        EXPECT_EQ(first.process().Wait(10'000), 0) << first.ErrorText();
        EXPECT_EQ(first.ErrorText().find("resumed"), std::string::npos) << first.ErrorText();
    }
    EXPECT_TRUE(os::PathExists(dir_.File(L"cr-host-state.json")));

    const std::wstring log = dir_.File(L"second.txt");
    HostProcess second({L"--log", log}, dir_.path());
    ASSERT_TRUE(second.Started()) << os::WideToUtf8Lossy(second.startError());
    EXPECT_EQ(second.Method("GetRules")["response"]["rules"], Parse(kAlwaysTrue));
    EXPECT_EQ(second.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["M"])"));
    EXPECT_TRUE(Eventually([&] {
        return second.ErrorText().find("resumed 1 rules and 1 method sets from cr-host-state.json\n") !=
               std::string::npos;
    })) << second.ErrorText();
    // The stored last run matches what is true now: the first evaluation runs nothing.
    EXPECT_TRUE(Eventually([&] { return testing_support::FileContains(log, L"Nothing changed from the last run"); },
                           kFirstEvaluation));
    EXPECT_EQ(second.Finish(), 0) << second.ErrorText();
    EXPECT_EQ(Count(second, IsPolicyRun()), 0u);
    EXPECT_EQ(Count(second, IsEvent()), 0u);
}

TEST_F(CrHostRunner, ARunCutShortByAKillRunsAgainAfterARestart) {
    // The state file is read only while no host runs: a reader may keep the
    // host from replacing the file (Windows).
    {
        const std::wstring log = dir_.File(L"first.txt");
        HostProcess first(Arguments(L"first.txt"));
        ASSERT_TRUE(first.Started()) << os::WideToUtf8Lossy(first.startError());
        EvaluateAtOnce(first);
        ASSERT_EQ(first.Host(Parse(
                      R"({"host":"policy.result","plugin":"P","method":"m","result":0,"delayMs":60000})"))["status"],
                  0);
        SendRules(first, kAlwaysTrue);
        ASSERT_TRUE(
            Eventually([&] { return testing_support::FileContains(log, L"Try to run method [M]"); }, kFirstEvaluation))
            << first.ErrorText();
        first.process().Kill();
        EXPECT_EQ(first.process().Wait(10'000), 137);
        EXPECT_EQ(Count(first, IsPolicyRun()), 0u);
    }
    // The runner marked the run as started on disk before it ran anything.
    EXPECT_EQ(RunStartedFlag(state_), true);

    HostProcess second(Arguments(L"second.txt"));
    ASSERT_TRUE(second.Started()) << os::WideToUtf8Lossy(second.startError());
    const auto run = second.WaitFor(IsPolicyRun(), 0, kFirstEvaluation);
    ASSERT_TRUE(run) << second.ErrorText();
    EXPECT_EQ((*run)["policyRun"]["status"], 0);
    const auto event = second.WaitFor(IsEvent());
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["payload"]["data"][0]["rulesMatched"], Parse(R"(["r1"])"));
    EXPECT_EQ(second.Finish(), 0) << second.ErrorText();
    EXPECT_EQ(RunStartedFlag(state_), false);
}

// "quit" while a method set runs: the host waits for the run, and its event
// is printed before the host ends.
TEST_F(CrHostRunner, AQuitDuringARunWaitsForItAndPrintsItsEvent) {
    const std::wstring log = dir_.File(L"log.txt");
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    EvaluateAtOnce(host);
    ASSERT_EQ(
        host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":0,"delayMs":3000})"))["status"],
        0);
    SendRules(host, kAlwaysTrue);
    ASSERT_TRUE(
        Eventually([&] { return testing_support::FileContains(log, L"Try to run method [M]"); }, kFirstEvaluation))
        << host.ErrorText();
    EXPECT_EQ(Count(host, IsPolicyRun()), 0u);

    EXPECT_EQ(host.Host(Parse(R"({"host":"quit"})"))["status"], 0);
    EXPECT_EQ(host.process().Wait(20'000), 0) << host.ErrorText();
    size_t runAt = 0, eventAt = 0;
    ASSERT_TRUE(host.WaitFor(IsPolicyRun(), 0, testing_support::kPatience, &runAt));
    const auto event = host.WaitFor(IsEvent(), 0, testing_support::kPatience, &eventAt);
    ASSERT_TRUE(event) << host.ErrorText();
    EXPECT_GT(eventAt, runAt);
    EXPECT_EQ((*event)["payload"]["data"][0]["rulesMatched"], Parse(R"(["r1"])"));
}

}  // namespace
