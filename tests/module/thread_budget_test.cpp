// The module's threads do not grow with its rules: a thousand network rules,
// a hundred file rules and twenty name-resolution rules (whose names the
// machine's DNS may take its time to refuse) cost the same few threads as
// one rule of each. Counted in process, with the module's own network
// provider, while the host's services run beside it.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include <json/value.h>

#include "hosted_module.h"
#include "os/thread_name.h"
#include "os/utf8.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace {

using module_test::HostedModule;
using module_test::NetworkSource;
using testing_support::ParseJson;
using namespace std::chrono_literals;

// The module may have this many threads of its own at most, whatever its
// rules (with no file check slow and no method set running: those add a
// check lane and a run thread for as long as they last).
constexpr size_t kThreadBudget = 8;

std::string Quoted(const std::wstring& text) { return Json::Value(os::WideToUtf8Lossy(text)).toStyledString(); }

std::string Rule(const std::string& id, const std::string& condition) {
    return R"({"id":")" + id + R"(","displayName":"","methodSetId":"M","matchIf":)" + condition + "}";
}

// `network` rules over addresses and suffixes, `files` over files of `dir`
// and `names` over host names that do not exist.
std::string Rules(size_t network, size_t files, size_t names, const testing_support::TempDir& dir) {
    std::string rules;
    auto add = [&rules](const std::string& rule) { rules += (rules.empty() ? "" : ",") + rule; };
    for (size_t i = 0; i < network; ++i)
        add(Rule("n" + std::to_string(i), R"({"type":"boolean.AND","data":{"conditions":[
                {"type":"network.IP","data":{"address":"10.)" +
                                              std::to_string(i / 250) + ".0." + std::to_string(i % 250 + 1) + R"("}},
                {"type":"network.DNSSuffix","data":{"suffix":"corp.example"}}]}})"));
    for (size_t i = 0; i < files; ++i)
        add(Rule("f" + std::to_string(i), R"({"type":"Test.FileExists","data":{"filePath":)" +
                                              Quoted(dir.File(L"file" + std::to_wstring(i))) + "}}"));
    for (size_t i = 0; i < names; ++i)
        add(Rule("r" + std::to_string(i),
                 R"({"type":"network.canResolveHost","data":{"address":"name)" + std::to_string(i) + R"(.invalid"}})"));
    return R"({"rules":[)" + rules + "]}";
}

// The module's own threads: it names each "cr:<what>".
size_t ModuleThreadCount() {
    size_t count = 0;
    for (const os::ThreadInfo& thread : os::ProcessThreads()) count += thread.name.rfind("cr:", 0) == 0;
    return count;
}

// The module's threads once their count has stopped changing for a moment.
size_t SettledThreadCount() {
    size_t last = ModuleThreadCount();
    for (int quiet = 0, round = 0; quiet < 5 && round < 100; ++round) {
        std::this_thread::sleep_for(20ms);
        const size_t now = ModuleThreadCount();
        quiet = now == last ? quiet + 1 : 0;
        last = now;
    }
    return last;
}

// The process's threads by name, for a failure message.
std::string ThreadNames() {
    std::string names;
    for (const os::ThreadInfo& thread : os::ProcessThreads()) names += (names.empty() ? "" : ", ") + thread.name;
    return names;
}

TEST(ModuleThreads, StayFewWhateverTheNumberOfRules) {
    testing_support::LogCapture capture;  // the module's log lines stay out of the test's output
    testing_support::TempDir dir;
    HostedModule hosted(dir.File(L"settings.json"), NetworkSource::kModule);
    ASSERT_EQ(hosted.Command(L"SetMethodSet", R"({"id":"M","displayName":"","methods":[]})"), 0);
    // The evaluation thread runs from the start: without its name the
    // system cannot name threads, and the module's cannot be told apart.
    if (ThreadNames().find("cr:eval") == std::string::npos)
        GTEST_SKIP() << "the system does not name threads: " << ThreadNames();

    ASSERT_EQ(hosted.Command(L"SetRules", Rules(1, 1, 1, dir)), 0);
    const size_t few = SettledThreadCount();
    ASSERT_EQ(hosted.Command(L"SetRules", Rules(1000, 100, 20, dir)), 0);
    const size_t many = SettledThreadCount();

    EXPECT_LE(many, kThreadBudget) << "with one rule of each kind: " << few << "; threads: " << ThreadNames();
    // A few threads may come and go with queries in flight; not one per rule.
    EXPECT_LE(many, few + 3) << "with one rule of each kind: " << few << "; threads: " << ThreadNames();

    // Questions still in flight go on alone once their rules are gone; the
    // process ends only after them, so that its leak check meets no thread
    // on its way out.
    ASSERT_EQ(hosted.Command(L"SetRules", R"({"rules":[]})"), 0);
    EXPECT_TRUE(testing_support::Eventually([] { return ThreadNames().find("cr:resolve") == std::string::npos; }))
        << ThreadNames();
}

}  // namespace
