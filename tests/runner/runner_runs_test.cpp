// What a pass hands to the policy runner, its subscribers and its history
// when the same method sets run pass after pass: each request is the method
// set as stored at that moment, and each run names the rules of that pass.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <json/reader.h>

#include "os/file_io.h"
#include "runner/run_requests.h"
#include "runner/runner_fixture.h"

namespace {

using namespace runner_test;

// A runner whose rule "w" follows a file, so that the test can flip it and
// make every true method set run again while its other rules stay as they are.
class RunnerRunsTest : public RunnerTest {
protected:
    std::string FileRule() const {
        return R"({"type":"Test.FileExists","data":{"filePath":)" +
               Json::Value(os::WideToUtf8Lossy(watched_)).toStyledString() + "}}";
    }
    // Flips the watched file and evaluates with every condition asked afresh.
    void FlipAndEvaluate() {
        if (std::filesystem::exists(std::filesystem::path(watched_)))
            std::filesystem::remove(std::filesystem::path(watched_));
        else
            static_cast<void>(os::OpenFile(watched_, L"wb"));
        runner_.OnConnectionEvent(EndpointService::kServiceConnected);
        ASSERT_EQ(runner_.ReEvalRules(), 0);
    }
    // The "methods" of the policy runner's last request.
    Json::Value LastRequestMethods() {
        const auto runs = host_.policyRunner().Runs();
        if (runs.empty()) return Json::Value();
        Json::Value request;
        Json::Reader().parse(os::WideToUtf8Lossy(runs.back().requestText), request);
        return request["methods"];
    }
    // The rule ids of the runs of the newest history record, by method set.
    std::vector<std::pair<std::string, std::vector<std::string>>> LastHistoryRuns() {
        const Json::Value history = runner_.History();
        std::vector<std::pair<std::string, std::vector<std::string>>> runs;
        for (const Json::Value& run : history[history.size() - 1]["runs"]) {
            std::vector<std::string> ids;
            for (const Json::Value& id : run["rules"]) ids.push_back(id.asString());
            runs.emplace_back(run["methodSetId"].asString(), ids);
        }
        return runs;
    }

    const std::wstring watched_ = dir_.File(L"watched");
};

// The stored node is read for every run: a change made behind the runner's
// back, by the console or a removal of the node each shows in the next run.
TEST_F(RunnerRunsTest, EachRequestIsTheMethodSetAsStoredAtThatMoment) {
    testing_support::LogCapture capture;
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    const std::string fileRule = FileRule();
    ASSERT_EQ(SetRules({MakeRule(L"t", L"M", R"({"type":"boolean.TRUE"})"), MakeRule(L"w", L"M", fileRule.c_str())}),
              0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(LastRequestMethods(), ParseJson(R"([{"plugin":"P","method":"m"}])"));

    Put(L"/Methods_M", L"methods", ParseJson(R"([{"plugin":"P","method":"edited"}])"));
    FlipAndEvaluate();
    ASSERT_EQ(host_.policyRunner().Runs().size(), 2u);
    EXPECT_EQ(LastRequestMethods(), ParseJson(R"([{"plugin":"P","method":"edited"}])"));

    // Equal numbers written differently are written anew.
    Put(L"/Methods_M", L"methods", ParseJson(R"([{"plugin":"P","method":"edited","params":{"x":0.0}}])"));
    FlipAndEvaluate();
    Put(L"/Methods_M", L"methods", ParseJson(R"([{"plugin":"P","method":"edited","params":{"x":-0.0}}])"));
    FlipAndEvaluate();
    ASSERT_EQ(host_.policyRunner().Runs().size(), 4u);
    EXPECT_NE(host_.policyRunner().Runs().back().requestText.find(L"-0.0"), std::wstring::npos);

    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M", R"([{"plugin":"P","method":"console"}])"), false), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(host_.policyRunner().Runs().size(), 5u);
    EXPECT_EQ(LastRequestMethods(), ParseJson(R"([{"plugin":"P","method":"console"}])"));

    // A node that cannot be read any more: nothing is submitted, the run
    // reports the reading's error.
    IEPSettingsNode* root = nullptr;
    ASSERT_EQ(host_.settings()->OpenForWrite(L"/", &root), 0);
    EXPECT_EQ(root->RemoveChild(L"Methods_M"), 0);
    EXPECT_EQ(root->Commit(), 0);
    root->Release();
    reports_.reports.clear();
    FlipAndEvaluate();
    EXPECT_EQ(host_.policyRunner().Runs().size(), 5u);
    EXPECT_TRUE(capture.Contains(logging::kError, L"ConditionalRunnerAL::ExtractSdkMethod", L"Error reading method M"));
    ASSERT_EQ(reports_.reports.size(), 1u);
    EXPECT_EQ(runner_.History()[runner_.History().size() - 1]["runs"][0]["status"], qv::status::kNotFound);
}

// Runs of the same rules pass after pass, and runs whose rules changed, each
// name exactly the rules of their own pass, to subscribers and in the history.
TEST_F(RunnerRunsTest, EachRunNamesTheRulesOfItsOwnPass) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N"), false), 0);
    const std::string fileRule = FileRule();
    ASSERT_EQ(SetRules({MakeRule(L"m1", L"M", R"({"type":"boolean.TRUE"})"), MakeRule(L"n1", L"N", fileRule.c_str()),
                        MakeRule(L"w", L"M", fileRule.c_str()), MakeRule(L"n2", L"N", R"({"type":"boolean.TRUE"})"),
                        MakeRule(L"m2", L"M", R"({"type":"boolean.TRUE"})")}),
              0);
    using Report = std::vector<std::pair<std::wstring, std::vector<std::wstring>>>;
    using HistoryRuns = std::vector<std::pair<std::string, std::vector<std::string>>>;
    const Report absent{{L"M", {L"m1", L"m2"}}, {L"N", {L"n2"}}};
    const Report present{{L"M", {L"m1", L"w", L"m2"}}, {L"N", {L"n1", L"n2"}}};
    const HistoryRuns absentHistory{{"M", {"m1", "m2"}}, {"N", {"n2"}}};
    const HistoryRuns presentHistory{{"M", {"m1", "w", "m2"}}, {"N", {"n1", "n2"}}};

    ASSERT_EQ(runner_.ReEvalRules(), 0);
    FlipAndEvaluate();
    FlipAndEvaluate();
    // Every method set runs again with the same rules once re-enabled.
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(LastHistoryRuns(), absentHistory);
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(LastHistoryRuns(), absentHistory);
    FlipAndEvaluate();
    EXPECT_EQ(LastHistoryRuns(), presentHistory);
    EXPECT_EQ(reports_.reports, (std::vector<Report>{absent, present, absent, absent, absent, present}));

    // New rules, some under the ids of earlier ones, as many for N as before.
    ASSERT_EQ(SetRules({MakeRule(L"n2", L"N", R"({"type":"boolean.TRUE"})"),
                        MakeRule(L"m1", L"M", R"({"type":"boolean.TRUE"})"),
                        MakeRule(L"x", L"N", R"({"type":"boolean.TRUE"})")}),
              0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(reports_.reports.back(), (Report{{L"N", {L"n2", L"x"}}, {L"M", {L"m1"}}}));
    EXPECT_EQ(LastHistoryRuns(), (HistoryRuns{{"N", {"n2", "x"}}, {"M", {"m1"}}}));
}

// Values that the styled writer writes alike, and those it does not.
TEST(WrittenAlike, OnlyValuesWrittenTheSameTextAreAlike) {
    const auto alike = [](const char* a, const char* b) { return WrittenAlike(ParseJson(a), ParseJson(b)); };
    EXPECT_TRUE(alike(R"([{"a":1,"b":[true,null,"x",1.5]}])", R"([{"b":[true,null,"x",1.5],"a":1}])"));
    EXPECT_FALSE(alike(R"([{"a":1}])", R"([{"a":2}])"));
    EXPECT_FALSE(alike(R"({"a":1})", R"({"b":1})"));
    EXPECT_FALSE(alike(R"({"a":1})", R"({"a":1,"b":1})"));
    EXPECT_FALSE(alike(R"([1,2])", R"([2,1])"));
    EXPECT_FALSE(alike(R"(["x"])", R"(["y"])"));
    EXPECT_FALSE(alike(R"(0.0)", R"(-0.0)"));
    EXPECT_FALSE(alike(R"(1)", R"(1.0)"));
    EXPECT_FALSE(alike(R"(null)", R"({})"));
    Json::Value commented = ParseJson(R"({"a":1})");
    commented["a"].setComment(std::string("// why"), Json::commentAfterOnSameLine);
    EXPECT_FALSE(WrittenAlike(commented, ParseJson(R"({"a":1})")));
    EXPECT_TRUE(WrittenAlike(commented, commented));
}

}  // namespace
