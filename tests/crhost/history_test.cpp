// cr-host's "history": why each true rule ran or did not, and when a run
// that did not reach its target is tried again.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host_process.h"
#include "os/utf8.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;

class CrHostHistory : public testing::Test {
protected:
    std::vector<std::wstring> Arguments() const { return crhost_test::StateAndLogIn(dir_); }
    // The history once it holds an evaluation that ran a method set.
    static Json::Value HistoryWithARun(HostProcess& host) {
        Json::Value history;
        testing_support::Eventually([&] {
            history = host.Host(Parse(R"({"host":"history"})"))["evaluations"];
            for (const Json::Value& evaluation : history)
                if (!evaluation["runs"].empty()) return true;
            return false;
        });
        return history;
    }
    testing_support::TempDir dir_;
};

TEST_F(CrHostHistory, NamesTheRuleWhoseMethodSetIsUnknownAndTheRetryOfARunThatFoundNoConnection) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":0,"maxPostponeTime":60}})"))["status"], 0);
    ASSERT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":2250})"))["status"], 0);
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"M","displayName":"m","methods":[
        {"plugin":"P","method":"m"}]})"))["status"],
              0);
    ASSERT_EQ(host.Method("SetRules", Parse(R"({"rules":[
        {"id":"runs","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}},
        {"id":"lost","displayName":"","methodSetId":"nobody","matchIf":{"type":"boolean.TRUE"}}]})"))["status"],
              0);

    const Json::Value history = HistoryWithARun(host);
    ASSERT_FALSE(history.empty());
    const Json::Value* ran = nullptr;
    for (const Json::Value& evaluation : history)
        if (!evaluation["runs"].empty()) ran = &evaluation;
    ASSERT_NE(ran, nullptr) << history.toStyledString();
    EXPECT_EQ((*ran)["trueRules"], Parse(R"(["runs"])"));
    ASSERT_EQ((*ran)["runs"].size(), 1u);
    EXPECT_EQ((*ran)["runs"][0]["methodSetId"], "M");
    EXPECT_EQ((*ran)["runs"][0]["rules"], Parse(R"(["runs"])"));
    EXPECT_EQ((*ran)["runs"][0]["status"], 2250) << ran->toStyledString();
    EXPECT_EQ((*ran)["notRun"], Parse(R"([{"ruleId":"lost","reason":"method set unknown"}])"));
    // The retry 30 s after the pass, also in the status while it waits.
    ASSERT_TRUE((*ran)["retryAt"].isString()) << ran->toStyledString();
    EXPECT_GT((*ran)["retryAt"].asString(), (*ran)["time"].asString());
    EXPECT_FALSE((*ran)["triggers"].empty());
    const Json::Value status = host.Host(Parse(R"({"host":"status"})"));
    EXPECT_EQ(status["evaluation"]["retryAt"], (*ran)["retryAt"]) << status.toStyledString();

    // The next pass runs the rule again (its run did not reach its target);
    // one after that finds the same rules true and runs nothing, and says why.
    ASSERT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":0})"))["status"], 0);
    const auto evaluations = [&host] { return host.Host(Parse(R"({"host":"history"})"))["evaluations"]; };
    const auto newest = [](const Json::Value& list) { return list[list.size() - 1]; };
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"other","displayName":"","methods":[]})"))["status"], 0);
    Json::Value rerun;
    ASSERT_TRUE(testing_support::Eventually([&] {
        rerun = newest(evaluations());
        return rerun["time"].asString() > (*ran)["time"].asString() && !rerun["runs"].empty();
    })) << rerun.toStyledString();
    EXPECT_EQ(rerun["runs"][0]["status"], 0);
    EXPECT_FALSE(rerun.isMember("retryAt"));
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"another","displayName":"","methods":[]})"))["status"], 0);
    Json::Value last;
    EXPECT_TRUE(testing_support::Eventually([&] {
        last = newest(evaluations());
        return last["time"].asString() > rerun["time"].asString();
    })) << last.toStyledString();
    EXPECT_TRUE(last["runs"].empty()) << last.toStyledString();
    EXPECT_EQ(last["notRun"], Parse(R"([{"ruleId":"lost","reason":"method set unknown"},
        {"ruleId":"runs","reason":"unchanged since the last run"}])"))
        << last.toStyledString();
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

}  // namespace
