// cr-host's "explain" says what each condition saw: its "data" as given and
// an "observed" object with the values it compared and the one that matched.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host_process.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "support/log_capture.h"
#ifdef __linux__
#include "support/namespace_support_linux.h"
#endif

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;

using crhost_test::StateAndLogIn;

Json::Value Explain(HostProcess& host, const std::string& condition) {
    return host.Host(Parse(R"({"host":"explain","condition":)" + condition + "}"));
}

bool Lists(const Json::Value& list, const Json::Value& entry) {
    for (const Json::Value& item : list)
        if (item == entry) return true;
    return false;
}

TEST(CrHostExplainObserved, EachNodeShowsItsDataAndWhatItComparedAndMatched) {
    testing_support::TempDir dir;
    HostProcess host(StateAndLogIn(dir));
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Host(Parse(R"({"host":"users.logon","user":{"sid":"S-1-5-21-1-2-3-2000","name":"ann",
        "domain":"corp.local","groups":["S-1-5-21-1-2-3-513"]}})"))["status"],
              0);
    ASSERT_EQ(host.Host(Parse(R"({"host":"agent.connected","value":false})"))["status"], 0);

    const Json::Value answer = Explain(host, R"({"type":"boolean.OR","data":{"conditions":[
        {"type":"network.IP","data":{"address":"0.0.0.0/0"}},
        {"type":"network.IP","data":{"address":"203.0.113.77"}},
        {"type":"ad.User","data":{"sid":"S-1-5-21-1-2-3-2000"}},
        {"type":"ad.Group","data":{"sid":"S-1-5-21-1-2-3-999"}},
        {"type":"qv.isOvraConnected","data":{"connected":true}}]}})");
    ASSERT_EQ(answer["status"], 0) << answer.toStyledString();
    const Json::Value& nodes = answer["tree"]["children"];
    ASSERT_EQ(nodes.size(), 5u);
    // A combinator shows its children, not its data again.
    EXPECT_FALSE(answer["tree"].isMember("data"));
    EXPECT_FALSE(answer["tree"].isMember("observed"));

    // Any address matches the empty prefix: the first one the machine has.
    const Json::Value& any = nodes[0];
    EXPECT_EQ(any["data"], Parse(R"({"address":"0.0.0.0/0"})"));
    ASSERT_TRUE(any["observed"]["addresses"].isArray()) << any.toStyledString();
    if (any["observed"]["addresses"].empty()) {
        EXPECT_TRUE(any["observed"]["matched"].isNull());
        EXPECT_EQ(any["state"], false);
    } else {
        EXPECT_EQ(any["observed"]["matched"], any["observed"]["addresses"][0]);
        EXPECT_EQ(any["state"], true);
    }
    // An address the machine does not have: the same list, nothing matched.
    EXPECT_EQ(nodes[1]["observed"]["addresses"], any["observed"]["addresses"]);
    EXPECT_TRUE(nodes[1]["observed"]["matched"].isNull());
    EXPECT_EQ(nodes[1]["state"], false);

    // The logged-on user, and whether it passed each directory test.
    const Json::Value ann = Parse(R"({"sid":"S-1-5-21-1-2-3-2000","name":"ann","domain":"corp.local","matched":true})");
    EXPECT_TRUE(Lists(nodes[2]["observed"]["users"], ann)) << nodes[2].toStyledString();
    Json::Value annNotInGroup = ann;
    annNotInGroup["matched"] = false;
    EXPECT_TRUE(Lists(nodes[3]["observed"]["users"], annNotInGroup)) << nodes[3].toStyledString();

    // The agent connection as last reported, and the value delivered so far.
    EXPECT_EQ(nodes[4]["observed"]["connected"], false) << nodes[4].toStyledString();
    EXPECT_EQ(nodes[4]["observed"]["state"], false);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST(CrHostExplainObserved, AnAndOverTwoFileRulesNamesBothPathsAndWhichExists) {
    testing_support::TempDir dir;
    const std::wstring present = dir.File(L"present");
    const std::wstring missing = dir.File(L"missing");
    ASSERT_TRUE(os::OpenFile(present, L"wb"));
    HostProcess host(StateAndLogIn(dir));
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const auto path = [](const std::wstring& file) { return Json::Value(os::WideToUtf8Lossy(file)); };
    Json::Value condition = Parse(R"({"type":"boolean.AND","data":{"conditions":[
        {"type":"Test.FileExists","data":{}},{"type":"Test.FileExists","data":{}}]}})");
    condition["data"]["conditions"][0]["data"]["filePath"] = path(present);
    condition["data"]["conditions"][1]["data"]["filePath"] = path(missing);
    Json::Value action(Json::objectValue);
    action["host"] = "explain";
    action["condition"] = condition;
    const Json::Value answer = host.Host(action);
    ASSERT_EQ(answer["status"], 0) << answer.toStyledString();
    EXPECT_EQ(answer["tree"]["state"], false);
    const Json::Value& nodes = answer["tree"]["children"];
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0]["observed"]["path"], path(present));
    EXPECT_EQ(nodes[0]["observed"]["exists"], true);
    EXPECT_EQ(nodes[0]["state"], true);
    EXPECT_EQ(nodes[1]["observed"]["path"], path(missing));
    EXPECT_EQ(nodes[1]["observed"]["exists"], false);
    EXPECT_EQ(nodes[1]["state"], false);
    // Each says how it is looked at: watched through a folder, or polled.
    for (const Json::Value& node : nodes) {
        const std::string how = node["observed"]["how"].asString();
        EXPECT_TRUE(how == "watched" || how == "polled") << node.toStyledString();
    }
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

#ifdef __linux__
// In a private network namespace whose loopback holds 10.77.0.1/24, a rule
// on 10.77.0.0/16 names that address as the one that matched.
TEST(CrHostExplainObserved, AnAddressRuleNamesTheAddressThatMatched) {
    const network_test::ChildOutcome outcome = network_test::RunInPrivateNetworkNamespace([] {
        std::string failures =
            network_test::Shell("ip link set lo up") + network_test::Shell("ip addr add 10.77.0.1/24 dev lo");
        testing_support::TempDir dir;
        HostProcess host(StateAndLogIn(dir));
        if (!host.Started()) return failures + "cr-host did not start\n";
        const Json::Value answer = Explain(host, R"({"type":"network.IP","data":{"address":"10.77.0.0/16"}})");
        const Json::Value& observed = answer["tree"]["observed"];
        if (answer["tree"]["state"] != true) failures += "not true: " + answer.toStyledString();
        if (!observed["matched"].isString() || observed["matched"].asString().rfind("10.77.0.1", 0) != 0)
            failures += "matched is not 10.77.0.1: " + answer.toStyledString();
        if (!Lists(observed["addresses"], observed["matched"])) failures += "the match is not among the addresses\n";
        if (host.Finish() != 0) failures += "cr-host did not stop cleanly\n";
        return failures;
    });
    if (outcome.result == network_test::ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, network_test::ChildOutcome::Result::kPassed) << outcome.report;
}
#endif

}  // namespace
