// The runner's console operations and its evaluation pass, driven directly
// (no evaluation thread) over the reference host: a real condition manager,
// settings store and policy runner.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "os/file_io.h"
#include "runner/runner_fixture.h"

namespace {

using namespace runner_test;

TEST_F(RunnerTest, MethodSetsAreKeptInMemoryAndInTheStoreInStep) {
    EXPECT_EQ(runner_.SetMethod(MakeMethod(L"a/b"), false), qv::status::kInvalidParameter);
    EXPECT_TRUE(Stored(L"/Methods_a/b", L"id").isNull());
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N", "[]"), false), 0);
    EXPECT_EQ(Stored(L"/Methods_M", L"id"), "M");

    Method read;
    ASSERT_EQ(runner_.GetMethodSet(L"M", read), 0);
    EXPECT_EQ(read, MakeMethod(L"M"));
    EXPECT_EQ(runner_.GetMethodSet(L"unknown", read), qv::status::kNotFound);

    ASSERT_EQ(runner_.DeleteMethodSet(L"M"), 0);
    EXPECT_TRUE(Stored(L"/Methods_M", L"id").isNull());
    qv::List<std::wstring> ids;
    ASSERT_EQ(runner_.GetMethodSetIds(ids), 0);
    EXPECT_EQ(ids, (qv::List<std::wstring>{L"N"}));

    // Removing them all leaves the runner's own node alone.
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_EQ(runner_.DeleteAllMethodSets(), 0);
    EXPECT_TRUE(Stored(L"/Methods_N", L"id").isNull());
    EXPECT_EQ(Stored(L"/MethodsRunner", L"enabled"), false);
}

TEST_F(RunnerTest, RulesThatCannotBeBuiltAreLeftOutAndReported) {
    std::vector<RuleError> errors;
    const int32_t status = SetRules({MakeRule(L"a", L"M", R"({"type":"no.such.type"})"),
                                     MakeRule(L"b", L"M", R"({"type":"boolean.AND","data":{"conditions":[]}})"),
                                     MakeRule(L"c", L"M", R"({"type":"boolean.TRUE"})")},
                                    &errors);
    // An unknown type is reported only; the other failure is the result too.
    EXPECT_EQ(status, qv::status::kInvalidParameter);
    EXPECT_EQ(errors,
              (std::vector<RuleError>{{0, qv::status::kCallNotImplemented}, {1, qv::status::kInvalidParameter}}));
    qv::List<Rule> rules;
    ASSERT_EQ(runner_.GetRules(rules), 0);
    EXPECT_EQ(rules, (qv::List<Rule>{MakeRule(L"c", L"M", R"({"type":"boolean.TRUE"})")}));
    EXPECT_EQ(Stored(L"/MethodsRunner/Rules", L"")["data"].size(), 1u);
}

// Each method set runs once per pass for all its true rules, and only when
// the set of true rules changed; a changed method set or a re-enabling runs
// again; a transaction holds evaluations back.
TEST_F(RunnerTest, EvaluationRunsEachMethodSetOnceAndOnlyOnAChange) {
    testing_support::LogCapture capture;
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"r1", L"M", R"({"type":"boolean.TRUE"})"),
                        MakeRule(L"r2", L"unknown", R"({"type":"boolean.TRUE"})"),
                        MakeRule(L"r3", L"M", R"({"type":"boolean.FALSE"})"),
                        MakeRule(L"r4", L"M", R"({"type":"boolean.TRUE"})")}),
              0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(reports_.reports.size(), 1u);
    EXPECT_EQ(reports_.reports[0].size(), 1u);
    EXPECT_EQ(reports_.reports[0][0].first, L"M");
    EXPECT_EQ(reports_.reports[0][0].second, (std::vector<std::wstring>{L"r1", L"r4"}));
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);
    EXPECT_EQ(Stored(L"/MethodsRunner/Info", L"")["data"].size(), 2u);
    EXPECT_EQ(Stored(L"/MethodsRunner/methodsRunStarted", L""), false);

    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_TRUE(capture.Contains(L"Nothing changed from the last run"));
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);

    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M", R"([{"plugin":"P","method":"other"}])"), false), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 2u);

    ASSERT_EQ(runner_.BeginTransaction(), 0);
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_TRUE(capture.Contains(L"rules and methods transaction in progress. Skip evaluation this time"));
    EXPECT_EQ(host_.policyRunner().Runs().size(), 2u);
    ASSERT_EQ(runner_.EndTransaction(), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 3u);
}

// A method whose agent is not there: the run did not reach its target, so its
// rules are forgotten and a re-evaluation is scheduled, which runs the
// method set again though nothing else changed.
TEST_F(RunnerTest, ARunWhoseAgentIsMissingIsRetried) {
    testing_support::LogCapture capture;
    host_.policyRunner().SetResult(L"P", L"m", qv::status::kAgentNotFound);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"r", L"M", R"({"type":"boolean.TRUE"})")}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_TRUE(capture.Contains(logging::kWarning, L"ConditionalRunnerAL::ReEvalRules",
                                 L"running methodset [set M] returned with error AGENT_NOT_FOUND"));
    EXPECT_TRUE(capture.Contains(L"There are some valid rules which were not applied; re-signal after 30s"));
    EXPECT_EQ(StoredLastRunSize(), 0u);
    EXPECT_EQ(host_.queues().PendingCount(), 1u);

    host_.policyRunner().SetResult(L"P", L"m", 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 2u);
    EXPECT_EQ(StoredLastRunSize(), 1u);
}

// A response that is not JSON is logged and reported as none.
TEST_F(RunnerTest, AResponseThatDoesNotParseIsReportedAsNone) {
    testing_support::LogCapture capture;
    host_.policyRunner().SetResponseText(L"{not json");
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"r", L"M", R"({"type":"boolean.TRUE"})")}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_TRUE(
        capture.Contains(logging::kWarning, L"ConditionalRunnerAL::ReEvalRules", L"Cannot parse response {not json"));
    ASSERT_EQ(reports_.Count(), 1u);
}

// Console commands from several threads, conditions changing underneath and
// the evaluation thread running, for a while; then a clean stop.
TEST_F(RunnerTest, ConsoleCommandsConditionChangesAndEvaluationsInterleave) {
    constexpr auto kFor = std::chrono::milliseconds(1500);
    // A stream of signals postpones the thread's evaluations up to the
    // maximum (here 1 s); a thread of the test evaluates meanwhile as well.
    ASSERT_EQ(runner_.SetSettings(Settings{0, 1}), 0);
    ASSERT_EQ(runner_.Start(), 0);
    const std::wstring files[] = {dir_.File(L"a"), dir_.File(L"b")};
    auto exists = [&](int i) {
        return R"({"type":"Test.FileExists","data":{"filePath":)" +
               Json::Value(os::WideToUtf8Lossy(files[i])).toStyledString() + "}}";
    };
    const std::string a = exists(0), b = exists(1);
    const Rule rules[] = {MakeRule(L"ra", L"M", a.c_str()), MakeRule(L"rb", L"N", b.c_str()),
                          MakeRule(L"rt", L"M", R"({"type":"boolean.TRUE"})")};

    std::atomic<bool> running{true};
    std::atomic<int> failures{0};
    auto check = [&](int32_t status) {
        if (status != 0) ++failures;
    };
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; running; ++i) {
            qv::List<Rule> list{rules[i % 3], rules[(i + 1) % 3]};
            qv::List<RuleError> errors;
            check(runner_.SetRules(list, errors));
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; running; ++i) {
            check(runner_.SetMethod(MakeMethod(i % 2 ? L"M" : L"N"), i % 3 == 0));
            qv::List<Method> sets{MakeMethod(L"N")};
            check(i % 4 ? runner_.UpdateMethods(sets) : runner_.BeginTransaction());
            if (i % 4 == 0) check(runner_.EndTransaction());
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; running; ++i) {
            check(runner_.SetEnabled(i % 2 == 0));
            qv::List<Rule> got;
            qv::List<std::wstring> ids;
            bool enabled = false;
            check(runner_.GetRules(got));
            check(runner_.GetMethodSetIds(ids));
            check(runner_.IsEnabled(enabled));
            host_.serviceControl().RaiseConnectionEvent(EndpointService::kServiceConnected);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; running; ++i) {
            const std::wstring& file = files[i % 2];
            if (i % 4 < 2) {
                static_cast<void>(os::OpenFile(file, L"wb"));  // created, then closed at once
            } else {
                std::error_code ignored;
                std::filesystem::remove(std::filesystem::path(file), ignored);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    threads.emplace_back([&] {
        while (running) {
            check(runner_.ReEvalRules());
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    std::this_thread::sleep_for(kFor);
    running = false;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(runner_.Stop(), 0);
    EXPECT_GT(host_.policyRunner().Runs().size(), 0u);
}

}  // namespace
