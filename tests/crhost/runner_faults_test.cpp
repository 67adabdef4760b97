// Through cr-host, as a console sees the runner: combined updates store what
// they can and name the rules left out; a runner disabled by the console runs
// nothing however quickly the console toggles it.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "host_process.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::IsPolicyRun;
using crhost_test::Parse;
using namespace std::chrono_literals;

constexpr const char* kGoodRule =
    R"({"id":"good","displayName":"g","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}})";
constexpr const char* kBadRule =
    R"({"id":"bad","displayName":"b","methodSetId":"M","matchIf":{"type":"boolean.AND","data":{"conditions":[]}}})";

std::string MethodSet(const std::string& id) {
    return R"({"id":")" + id + R"(","displayName":"set )" + id + R"(","methods":[{"plugin":"P","method":"m"}]})";
}

class CrHostRunnerFaults : public testing::Test {
protected:
    std::vector<std::wstring> Arguments() const { return crhost_test::StateAndLogIn(dir_); }
    testing_support::TempDir dir_;
};

TEST_F(CrHostRunnerFaults, UpdatesStoreWhatTheyCanAndNameTheRulesLeftOut) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());

    Json::Value answer = host.Method(
        "UpdateRulesAndMethods",
        Parse(std::string(R"({"rules":[)") + kBadRule + "," + kGoodRule + R"(],"methods":[)" + MethodSet("M") + "]}"));
    EXPECT_EQ(answer["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(answer["response"]["rulesErrors"], Parse(R"([{"index":0,"error":87}])"));
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["M"])"));
    EXPECT_EQ(host.Method("GetRules")["response"]["rules"].size(), 1u);

    answer = host.Method("UpdateMethods", Parse(R"({"methods":[)" + MethodSet("A") + "," + MethodSet("x/y") + "," +
                                                MethodSet("B") + "]}"));
    EXPECT_EQ(answer["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["A","B","M"])"));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostRunnerFaults, ADisabledRunnerRunsNothingWhileTheConsoleTogglesIt) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":1,"maxPostponeTime":60}})"))["status"], 0);
    ASSERT_EQ(host.Method("SetMethodSet", Parse(MethodSet("M")))["status"], 0);
    ASSERT_EQ(host.Method("SetRules", Parse(std::string(R"({"rules":[)") + kGoodRule + "]}"))["status"], 0);
    // The first evaluation, after the start-up's quiet period (5 s): from
    // then on a signal is evaluated a second later.
    ASSERT_TRUE(host.WaitFor(IsPolicyRun(), 0, std::chrono::seconds(20))) << host.ErrorText();
    // Off, on, off: three lines at once, so that they all land while the
    // evaluation thread waits out its quiet period; each round ends
    // disabled, and no run may start before the next round.
    int id = 1000;
    for (int round = 0; round < 2; ++round) {
        std::string lines;
        for (const char* enabled : {"false", "true", "false"})
            lines += R"({"id":)" + std::to_string(++id) + R"(,"method":"SetEnabled","request":{"enabled":)" + enabled +
                     "}}\n";
        lines.pop_back();
        ASSERT_TRUE(host.Send(lines));
        const int last = id;
        ASSERT_TRUE(host.WaitFor([last](const Json::Value& line) { return line["id"] == last; }));
        // A run that started while the runner was enabled ended before this
        // answer (the runner serialises them); none may start from here on.
        const size_t disabledAt = host.Lines().size();
        std::this_thread::sleep_for(1500ms);  // past the quiet period (1 s)
        EXPECT_FALSE(host.WaitFor(IsPolicyRun(), disabledAt, 0ms)) << "a disabled runner ran, round " << round;
    }
    const size_t disabledAt = host.Lines().size();
    EXPECT_EQ(host.Method("IsEnabled")["response"]["enabled"], false);

    ASSERT_EQ(host.Method("SetEnabled", Parse(R"({"enabled":true})"))["status"], 0);
    EXPECT_TRUE(host.WaitFor(IsPolicyRun(), disabledAt)) << host.ErrorText();
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

// A method-set run that never returns: stopping waits for it up to the
// limit, gives it up, and the host ends; under AddressSanitizer a run that
// returned into freed memory would end the host with an error instead.
TEST_F(CrHostRunnerFaults, StoppingGivesUpARunThatHangsOnceItsLimitHasPassed) {
    std::vector<std::wstring> arguments = Arguments();
    arguments.insert(arguments.end(), {L"--stop-limit", L"300"});
    HostProcess host(arguments);
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":0,"maxPostponeTime":60}})"))["status"], 0);
    ASSERT_EQ(host.Host(Parse(
                  R"({"host":"policy.result","plugin":"P","method":"m","result":0,"delayMs":86400000})"))["status"],
              0);
    ASSERT_EQ(host.Method("SetMethodSet", Parse(MethodSet("M")))["status"], 0);
    ASSERT_EQ(host.Method("SetRules", Parse(std::string(R"({"rules":[)") + kGoodRule + "]}"))["status"], 0);
    const std::wstring log = dir_.File(L"log.txt");
    ASSERT_TRUE(testing_support::Eventually(
        [&] { return testing_support::FileContains(log, L"Try to run method [M]"); }, std::chrono::seconds(20)));

    const auto stopping = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Finish(std::chrono::seconds(30)), 0) << host.ErrorText();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::seconds(30));
    EXPECT_TRUE(testing_support::FileContains(log, L"Cannot stop evaluation thread"));
    EXPECT_FALSE(host.WaitFor(crhost_test::IsEvent(), 0, 0ms));
}

}  // namespace
