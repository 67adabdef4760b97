// A host that ends its process without stopping the module (cr-host's
// "exit"): the module's threads are still running, file and name-resolution
// conditions are alive and a method-set run may be under way while the
// process's static objects are destroyed. The process must end promptly,
// with the status it asked for and without a sanitizer report.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "host_process.h"
#include "os/environment.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;
using namespace std::chrono_literals;

std::string Quoted(const std::wstring& text) { return Json::Value(os::WideToUtf8Lossy(text)).toStyledString(); }

// Words a sanitizer or the C++ runtime writes when something went wrong.
bool ReportsAFault(const std::string& errors) {
    for (const char* word : {"AddressSanitizer", "ThreadSanitizer", "LeakSanitizer",
                             "runtime error:", "terminate called", "Assertion", "wine: Unhandled"})
        if (errors.find(word) != std::string::npos) return true;
    return false;
}

class CrHostProcessExit : public testing::Test {
protected:
    std::vector<std::wstring> Arguments() const { return crhost_test::StateAndLogIn(dir_); }

    // Rules over a file, a host name and a constant, a method set for them,
    // and a method that takes its time, so that every kind of module thread
    // is busy when the process ends.
    static void StartEverything(HostProcess& host, const std::wstring& file) {
        ASSERT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":0,"maxPostponeTime":60}})"))["status"],
                  0);
        ASSERT_EQ(host.Host(Parse(
                      R"({"host":"policy.result","plugin":"P","method":"slow","result":0,"delayMs":60000})"))["status"],
                  0);
        ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"M","displayName":"m","methods":[
                                                       {"plugin":"P","method":"slow"}]})"))["status"],
                  0);
        const Json::Value answer = host.Method("SetRules", Parse(R"({"rules":[
            {"id":"file","displayName":"","methodSetId":"M","matchIf":
                {"type":"Test.FileExists","data":{"filePath":)" + Quoted(file) +
                                                                 R"(}}},
            {"id":"name","displayName":"","methodSetId":"M","matchIf":
                {"type":"network.canResolveHost","data":{"address":"localhost"}}},
            {"id":"always","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}}]})"));
        ASSERT_EQ(answer["status"], 0) << answer.toStyledString();
    }

    testing_support::TempDir dir_;
};

TEST_F(CrHostProcessExit, EndsPromptlyWhileTheModuleStillRuns) {
    const std::wstring file = dir_.File(L"flag");
    // Objects and threads left alive on purpose are no leak; and
    // LeakSanitizer's own check, run while the module's threads come and go,
    // may crash itself.
    const std::optional<std::wstring> asanOptions = os::GetEnv(L"ASAN_OPTIONS");
    const std::optional<std::wstring> tsanOptions = os::GetEnv(L"TSAN_OPTIONS");
    os::SetEnv(L"ASAN_OPTIONS", asanOptions.value_or(L"") + L":detect_leaks=0");
    os::SetEnv(L"TSAN_OPTIONS", tsanOptions.value_or(L"") + L":report_thread_leaks=0");
    HostProcess host(Arguments());
    os::SetEnv(L"ASAN_OPTIONS", asanOptions);
    os::SetEnv(L"TSAN_OPTIONS", tsanOptions);
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_NO_FATAL_FAILURE(StartEverything(host, file));
    // The method set's run is under way, and the file flips so that the
    // evaluation thread and the file conditions are at work (and logging).
    ASSERT_TRUE(host.WaitFor([](const Json::Value&) { return false; }, 0, 200ms) == std::nullopt);
    for (int flip = 0; flip < 6; ++flip) {
        if (flip % 2 == 0)
            ASSERT_TRUE(os::OpenFile(file, L"wb"));
        else
            ASSERT_TRUE(std::filesystem::remove(std::filesystem::path(file)));
        std::this_thread::sleep_for(30ms);
    }
    ASSERT_TRUE(host.Send(R"({"id":"bye","host":"exit","code":7})"));

    const std::optional<int> status = host.process().Wait(20000);
    if (!status) host.process().Kill();
    ASSERT_TRUE(status.has_value()) << "the process did not end within 20 s of exit";
    EXPECT_EQ(*status, 7) << host.ErrorText();
    EXPECT_FALSE(ReportsAFault(host.ErrorText())) << host.ErrorText();
    ASSERT_TRUE(host.WaitFor([](const Json::Value& line) { return line["id"] == "bye"; }, 0, 5s).has_value());
}

TEST_F(CrHostProcessExit, RefusesAnExitStatusOutOfRange) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    EXPECT_EQ(host.Host(Parse(R"({"host":"exit","code":256})"))["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(host.Host(Parse(R"({"host":"exit","code":"1"})"))["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

}  // namespace
