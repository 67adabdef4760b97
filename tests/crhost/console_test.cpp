// cr-host as a separate process, driven over its console: every console
// command through the module's agent, the host's own actions, hostile input,
// the command line and the ways it stops.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "host_process.h"
#include "os/file_io.h"
#include "os/module.h"
#include "os/path.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;
using testing_support::Eventually;

// The host's standard error comes through a pipe of its own: it may arrive
// a little after the exit status.
bool ErrorMentions(const HostProcess& host, const std::string& text) {
    return Eventually([&] { return host.ErrorText().find(text) != std::string::npos; });
}

// An explanation's type, state and children only, without what each node
// saw (the data and observed values have tests of their own).
Json::Value Shape(const Json::Value& tree) {
    Json::Value shape(Json::objectValue);
    shape["type"] = tree["type"];
    shape["state"] = tree["state"];
    Json::Value& children = shape["children"] = Json::Value(Json::arrayValue);
    for (const Json::Value& child : tree["children"]) children.append(Shape(child));
    return shape;
}

class CrHostConsole : public testing::Test {
protected:
    std::vector<std::wstring> Arguments() const { return {L"--state", state_, L"--log", log_}; }

    testing_support::TempDir dir_;
    const std::wstring state_ = dir_.File(L"state.json");
    const std::wstring log_ = dir_.File(L"log.txt");
};

TEST_F(CrHostConsole, EveryConsoleCommandIsAnsweredThroughTheAgent) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const Json::Value methodSet = Parse(R"({"id":"M","displayName":"one","methods":[{"plugin":"P","method":"m"}]})");
    const Json::Value rule =
        Parse(R"({"id":"r1","displayName":"rule","methodSetId":"M","matchIf":{"type":"boolean.FALSE"}})");

    Json::Value answer = host.Method("SetMethodSet", methodSet);
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(answer["method"], "SetMethodSet");
    EXPECT_TRUE(answer["response"].isObject());
    EXPECT_EQ(host.Method("GetMethodSet", Parse(R"({"id":"M"})"))["response"]["methods"], methodSet["methods"]);
    EXPECT_EQ(host.Method("GetMethodSet", Parse(R"({"id":"none"})"))["status"], qv::status::kNotFound);

    Json::Value update(Json::objectValue);
    update["methods"].append(Parse(R"({"id":"N","displayName":"two","methods":[]})"));
    EXPECT_EQ(host.Method("UpdateMethods", update)["status"], 0);
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["M","N"])"));
    EXPECT_EQ(host.Method("DeleteMethodSet", Parse(R"({"id":"N"})"))["status"], 0);
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["M"])"));

    Json::Value rules(Json::objectValue);
    rules["rules"].append(rule);
    answer = host.Method("SetRules", rules);
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(answer["response"]["rulesErrors"], Json::Value(Json::arrayValue));
    EXPECT_EQ(host.Method("GetRules")["response"]["rules"], rules["rules"]);
    Json::Value both = rules;
    both["rules"][0]["id"] = "r2";
    both["methods"].append(methodSet);
    EXPECT_EQ(host.Method("UpdateRulesAndMethods", both)["status"], 0);
    EXPECT_EQ(host.Method("GetRules")["response"]["rules"][0]["id"], "r2");
    EXPECT_EQ(host.Method("DeleteAllMethodSets")["status"], 0);
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Json::Value(Json::arrayValue));

    EXPECT_EQ(host.Method("SetSettings", Parse(R"({"settings":{"minEvalTime":1,"maxPostponeTime":9}})"))["status"], 0);
    EXPECT_EQ(host.Method("GetSettings")["response"]["settings"], Parse(R"({"minEvalTime":1,"maxPostponeTime":9})"));
    EXPECT_EQ(host.Method("SetEnabled", Parse(R"({"enabled":false})"))["status"], 0);
    EXPECT_EQ(host.Method("IsEnabled")["response"]["enabled"], false);

    // A command the agent does not know and one without a request reach the
    // agent, which refuses them; a request that is no object never gets there.
    EXPECT_EQ(host.Method("NoSuchCommand")["status"], qv::status::kNotSupported);
    EXPECT_EQ(host.Method("GetRules", Json::Value())["status"], qv::status::kBadArguments);
    answer = host.Method("GetRules", Json::Value(3));
    EXPECT_EQ(answer["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(answer["error"], "\"request\" is not an object");

    // Any JSON id comes back as it was sent.
    ASSERT_TRUE(host.Send(R"({"id":{"nested":[1,"two"]},"method":"IsEnabled","request":{}})"));
    EXPECT_TRUE(host.WaitFor([](const Json::Value& line) { return line["id"] == Parse(R"({"nested":[1,"two"]})"); }));
    ASSERT_TRUE(host.Send(R"({"method":"IsEnabled","request":{}})"));
    const auto anonymous =
        host.WaitFor([](const Json::Value& line) { return line["method"] == "IsEnabled" && !line.isMember("id"); });
    ASSERT_TRUE(anonymous);
    EXPECT_EQ((*anonymous)["status"], 0);

    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
    EXPECT_TRUE(host.BadLines().empty());
}

TEST_F(CrHostConsole, HostActionsAnswerTheirStatus) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());

    // The agent connection is what an agent-connection condition sees.
    const Json::Value connected = Parse(R"({"host":"explain","condition":
        {"type":"qv.isOvraConnected","data":{"connected":true}}})");
    EXPECT_EQ(host.Host(connected)["tree"]["state"], false);
    EXPECT_EQ(host.Host(Parse(R"({"host":"agent.connected","value":true})"))["status"], 0);
    EXPECT_EQ(host.Host(connected)["tree"]["state"], true);
    EXPECT_EQ(host.Host(Parse(R"({"host":"agent.connected","value":null})"))["status"], 0);
    EXPECT_EQ(host.Host(connected)["tree"]["state"], false);
    EXPECT_EQ(host.Host(Parse(R"({"host":"agent.connected","value":"yes"})"))["status"], qv::status::kInvalidParameter);
    EXPECT_EQ(host.Host(Parse(R"({"host":"agent.connected"})"))["status"], qv::status::kInvalidParameter);

    // The runner is the one sink of the service control.
    Json::Value answer = host.Host(Parse(R"({"host":"service.connected"})"));
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(answer["sinks"], 1);

    EXPECT_EQ(
        host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":5,"delayMs":10})"))["status"], 0);
    EXPECT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":-5002})"))["status"], 0);
    EXPECT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"","method":"m","result":1})"))["status"],
              qv::status::kInvalidParameter);
    EXPECT_EQ(host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":1.5})"))["status"],
              qv::status::kInvalidParameter);
    EXPECT_EQ(
        host.Host(Parse(R"({"host":"policy.result","plugin":"P","method":"m","result":1,"delayMs":-1})"))["status"],
        87);

    // The host's users and computer, as directory conditions see them.
    const Json::Value userInGroup =
        Parse(R"({"host":"explain","condition":{"type":"ad.Group","data":{"sid":"S-1-5-21-1-2-3-513"}}})");
    const Json::Value computerInGroup =
        Parse(R"({"host":"explain","condition":{"type":"ad.ComputerGroup","data":{"sid":"S-1-5-21-1-2-3-515"}}})");
    const Json::Value logOn = Parse(R"({"host":"users.logon","user":{"sid":"S-1-5-21-1-2-3-2000","name":"ann",
        "domain":"corp.local","groups":["S-1-5-21-1-2-3-513"]}})");
    const Json::Value logOff = Parse(R"({"host":"users.logoff","user":{"sid":"s-1-5-21-1-2-3-2000"}})");
    EXPECT_EQ(host.Host(userInGroup)["tree"]["state"], false);
    EXPECT_EQ(host.Host(logOn)["status"], 0);
    EXPECT_EQ(host.Host(logOn)["status"], qv::status::kAlreadyExists);
    EXPECT_EQ(host.Host(userInGroup)["tree"]["state"], true);
    EXPECT_EQ(host.Host(logOff)["status"], 0);
    EXPECT_EQ(host.Host(logOff)["status"], qv::status::kNotFound);
    EXPECT_EQ(host.Host(userInGroup)["tree"]["state"], false);
    EXPECT_EQ(host.Host(Parse(R"({"host":"users.logon","user":{"sid":"S-1-5-21-1-2-3-2000","groups":[5]}})"))["status"],
              87);
    EXPECT_EQ(host.Host(computerInGroup)["tree"]["state"], false);
    answer = host.Host(Parse(R"({"host":"computer.groups","groups":[{"dn":"CN=Servers,DC=corp,DC=local",
        "sid":"S-1-5-21-1-2-3-515"}]})"));
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(host.Host(computerInGroup)["tree"]["state"], true);
    EXPECT_EQ(host.Host(Parse(R"({"host":"computer.groups","groups":[{"dn":1}]})"))["status"],
              qv::status::kInvalidParameter);
    EXPECT_EQ(host.Host(Parse(R"({"host":"computer.ou","ou":"CN=PC1,OU=Servers,DC=corp,DC=local"})"))["status"], 0);
    EXPECT_EQ(host.Host(Parse(R"({"host":"computer.ou"})"))["status"], qv::status::kInvalidParameter);
    answer = host.Host(Parse(R"({"host":"no.such.action"})"));
    EXPECT_EQ(answer["status"], qv::status::kNotFound);
    EXPECT_EQ(answer["host"], "no.such.action");

    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Host(Parse(R"({"host":"sleep","ms":300})"))["status"], 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(300));
    EXPECT_EQ(host.Host(Parse(R"({"host":"sleep","ms":"long"})"))["status"], qv::status::kInvalidParameter);

    // "quit" is answered, then the host stops although its input is open.
    EXPECT_EQ(host.Host(Parse(R"({"host":"quit"})"))["status"], 0);
    EXPECT_EQ(host.process().Wait(10'000), 0) << host.ErrorText();
    EXPECT_TRUE(host.BadLines().empty());
}

TEST_F(CrHostConsole, ExplainShowsTheStateOfEveryNode) {
    const std::wstring present = dir_.File(L"present");
    ASSERT_TRUE(os::OpenFile(present, L"wb"));
    const std::string presentPath = Json::Value(os::WideToUtf8Lossy(present)).toStyledString();
    const std::string missingPath = Json::Value(os::WideToUtf8Lossy(dir_.File(L"missing"))).toStyledString();
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());

    // True: the file is there and the missing one is not.
    Json::Value answer = host.Host(Parse(R"({"host":"explain","condition":{"type":"boolean.AND","data":{"conditions":[
        {"type":"Test.FileExists","data":{"filePath":)" +
                                         presentPath + R"(}},
        {"type":"boolean.NOT","data":{"condition":{"type":"Test.FileExists","data":{"filePath":)" +
                                         missingPath + R"(}}}}]}}})"));
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(Shape(answer["tree"]), Parse(R"({"type":"boolean.AND","state":true,"children":[
        {"type":"Test.FileExists","state":true,"children":[]},
        {"type":"boolean.NOT","state":true,"children":[{"type":"Test.FileExists","state":false,"children":[]}]}]})"));

    // False, through a rule of the module: the OR's children say why.
    Json::Value rules = Parse(R"({"rules":[{"id":"r1","displayName":"","methodSetId":"M","matchIf":
        {"type":"boolean.OR","data":{"conditions":[{"type":"boolean.FALSE"},
        {"type":"Test.FileExists","data":{"filePath":)" +
                              missingPath + R"(}}]}}}]})");
    ASSERT_EQ(host.Method("SetRules", rules)["status"], 0);
    answer = host.Host(Parse(R"({"host":"explain","ruleId":"r1"})"));
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(Shape(answer["tree"]), Parse(R"({"type":"boolean.OR","state":false,"children":[
        {"type":"boolean.FALSE","state":false,"children":[]},
        {"type":"Test.FileExists","state":false,"children":[]}]})"));
    EXPECT_EQ(host.Host(Parse(R"({"host":"rules"})"))["rules"],
              Parse(R"([{"id":"r1","methodSetId":"M","state":false}])"));

    // A tree that cannot be built answers the factory's status.
    answer =
        host.Host(Parse(R"({"host":"explain","condition":{"type":"boolean.NOT","data":{"condition":{"type":"x"}}}})"));
    EXPECT_EQ(answer["status"], qv::status::kCallNotImplemented);
    EXPECT_FALSE(answer.isMember("tree"));
    EXPECT_EQ(host.Host(Parse(R"({"host":"explain","ruleId":"r9"})"))["status"], qv::status::kNotFound);
    EXPECT_EQ(host.Host(Parse(R"({"host":"explain"})"))["status"], qv::status::kInvalidParameter);
    EXPECT_TRUE(host.BadLines().empty());
}

TEST_F(CrHostConsole, HostileLinesAreAnsweredAndTheHostGoesOn) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const std::string deep(100'000, '[');
    const std::string huge = "{\"id\":\"" + std::string(size_t{9} * 1024 * 1024, 'x') + "\",\"method\":\"IsEnabled\"}";
    const std::vector<std::string> hostile = {
        "not json",
        "[1,2]",
        "42",
        "\"text\"",
        "{}",
        R"({"id":1})",
        R"({"method":7})",
        R"({"host":null})",
        "{\"method\":\"\xff\xfe\"}",
        "{\"id\":1} trailing",
        deep,
        huge,
        R"({"a":1, "a":2, "method":"IsEnabled"})",
    };
    for (const std::string& line : hostile) ASSERT_TRUE(host.Send(line));
    // Blank lines are skipped; a line ending in CR LF is read as the line.
    ASSERT_TRUE(host.Send(""));
    ASSERT_TRUE(host.Send("  \t"));
    ASSERT_TRUE(host.Send("{\"id\":\"crlf\",\"method\":\"IsEnabled\",\"request\":{}}\r"));

    const auto answered = host.WaitFor([](const Json::Value& line) { return line["id"] == "crlf"; });
    ASSERT_TRUE(answered) << host.ErrorText();
    EXPECT_EQ((*answered)["status"], 0);
    std::vector<Json::Value> errors;
    for (const Json::Value& line : host.Lines())
        if (line.isMember("error") && line.isMember("line")) errors.push_back(line);
    ASSERT_EQ(errors.size(), hostile.size());
    for (size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i]["line"].asUInt64(), i + 1);
        EXPECT_TRUE(errors[i]["error"].isString());
    }
    EXPECT_EQ(errors[4]["error"], "neither \"method\" nor \"host\"");
    EXPECT_EQ(errors[8]["error"], "not UTF-8");
    EXPECT_EQ(errors[10]["error"], "nested deeper than 256 levels");
    EXPECT_NE(errors[11]["error"].asString().find("line longer than"), std::string::npos);

    // A condition nested deeper than the module builds reaches the module,
    // which refuses that rule and keeps the others.
    std::string chain = R"({"type":"boolean.TRUE"})";
    for (int i = 0; i < 70; ++i) chain = R"({"type":"boolean.NOT","data":{"condition":)" + chain + "}}";
    const Json::Value answer = host.Method(
        "SetRules", Parse(R"({"rules":[{"id":"deep","displayName":"","methodSetId":"M","matchIf":)" + chain +
                          R"(},{"id":"flat","displayName":"","methodSetId":"M","matchIf":{"type":"boolean.TRUE"}}]})"));
    EXPECT_EQ(answer["response"]["rulesErrors"], Parse(R"([{"index":0,"error":87}])"));
    EXPECT_EQ(host.Method("GetRules")["response"]["rules"].size(), 1u);

    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
    EXPECT_TRUE(host.BadLines().empty());
}

// Every member a host action reads is checked: one of the wrong type, or
// text holding NUL, is refused with 87 naming the member, nothing happens,
// and the host goes on.
TEST_F(CrHostConsole, EveryMemberAHostActionReadsIsCheckedAndNamed) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const std::string user = R"("sid":"S-1-5-21-1-2-3-2000","name":"ann","domain":"corp.local")";
    const std::vector<std::pair<std::string, std::string>> refused = {
        {R"({"host":"users.logon","user":"x"})", "user"},
        {R"({"host":"users.logon","user":[]})", "user"},
        {R"({"host":"users.logon"})", "user"},
        {R"({"host":"users.logon","user":{"sid":5,"name":"ann","domain":"corp.local"}})", "user.sid"},
        {R"({"host":"users.logon","user":{"sid":"S-1-5-21-1-2-3-2000\u0000x","name":"a","domain":"d"}})", "user.sid"},
        {R"({"host":"users.logon","user":{"sid":"S-1-5-21-1-2-3-2000","name":[],"domain":"d"}})", "user.name"},
        {R"({"host":"users.logon","user":{)" + user + R"(,"groups":"S-1-5-21-1-2-3-513"}})", "user.groups"},
        {R"({"host":"users.logon","user":{)" + user + R"(,"groups":["S-1-5-21-1-2-3-513",{}]}})", "user.groups[1]"},
        {R"({"host":"users.logon","user":{)" + user + R"(,"groups":["S-1-5-21-1-2-3-513\u0000"]}})", "user.groups[0]"},
        {R"({"host":"users.logoff","user":"x"})", "user"},
        {R"({"host":"users.logoff","user":[]})", "user"},
        {R"({"host":"users.logoff","user":{"sid":null}})", "user.sid"},
        {R"({"host":"computer.groups","groups":{"dn":"CN=a","sid":"S-1-5-21-1-2-3-515"}})", "groups"},
        {R"({"host":"computer.groups","groups":["x"]})", "groups[0]"},
        {R"({"host":"computer.groups","groups":[{"dn":"CN=a","sid":5}]})", "groups[0].sid"},
        {R"({"host":"computer.ou","ou":["x"]})", "ou"},
        {R"({"host":"computer.ou","ou":"CN=PC1\u0000,DC=corp"})", "ou"},
        {R"({"host":"agent.connected","value":"yes"})", "value"},
        {R"({"host":"policy.result","plugin":{},"method":"m","result":1})", "plugin"},
        {R"({"host":"policy.result","plugin":"P\u0000x","method":"m","result":1})", "plugin"},
        {R"({"host":"policy.result","plugin":"P","method":"m","result":"1"})", "result"},
        {R"({"host":"policy.result","plugin":"P","method":"m","result":1,"delayMs":[]})", "delayMs"},
        {R"({"host":"explain","ruleId":{}})", "ruleId"},
        {R"({"host":"sleep","ms":{}})", "ms"},
    };
    for (const auto& [line, member] : refused) {
        const Json::Value answer = host.Host(Parse(line));
        EXPECT_EQ(answer["status"], 87) << line;
        EXPECT_NE(answer["error"].asString().find('"' + member + '"'), std::string::npos)
            << line << " answered " << answer.toStyledString();
    }
    // A condition that is no object reaches the module, which refuses it.
    EXPECT_NE(host.Host(Parse(R"({"host":"explain","condition":"x"})"))["status"], 0);

    // None of them logged a user on or changed the computer.
    const Json::Value userInGroup =
        Parse(R"({"host":"explain","condition":{"type":"ad.User","data":{"sid":"S-1-5-21-1-2-3-2000"}}})");
    EXPECT_EQ(host.Host(userInGroup)["tree"]["state"], false);
    EXPECT_EQ(host.Method("IsEnabled")["status"], 0);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
    EXPECT_TRUE(host.BadLines().empty());
}

// Text from the console is never cut at a NUL on its way to a C string: a
// command name holding one is unknown, and so is a host action's name.
TEST_F(CrHostConsole, ANameHoldingNulIsRefusedNeverCut) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    ASSERT_EQ(host.Method("SetMethodSet", Parse(R"({"id":"M","displayName":"","methods":[]})"))["status"], 0);

    ASSERT_TRUE(host.Send(R"({"id":"nul","method":"DeleteAllMethodSets\u0000x","request":{}})"));
    auto answer = host.WaitFor([](const Json::Value& line) { return line["id"] == "nul"; });
    ASSERT_TRUE(answer) << host.ErrorText();
    EXPECT_EQ((*answer)["status"], qv::status::kNotSupported);
    EXPECT_EQ((*answer)["method"], std::string("DeleteAllMethodSets\0x", 21));
    EXPECT_EQ(host.Method("GetMethodSetIds")["response"]["ids"], Parse(R"(["M"])"));

    ASSERT_TRUE(host.Send(R"({"id":"quit","host":"quit\u0000x"})"));
    answer = host.WaitFor([](const Json::Value& line) { return line["id"] == "quit"; });
    ASSERT_TRUE(answer) << host.ErrorText();
    EXPECT_EQ((*answer)["status"], qv::status::kNotFound);
    EXPECT_EQ(host.Method("IsEnabled")["status"], 0);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

// The longest line kept is 8 MiB whether it ends in LF or in CR LF; one byte
// more is refused either way.
TEST_F(CrHostConsole, TheLongestLineIsTheSameWhateverItsEnd) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const auto line = [](const std::string& id, size_t size) {
        const std::string head = R"({"id":")" + id + R"(","method":"IsEnabled","request":{},"pad":")";
        return head + std::string(size - head.size() - 2, 'x') + "\"}";
    };
    const size_t longest = size_t{8} * 1024 * 1024;
    ASSERT_EQ(line("lf", longest).size(), longest);
    ASSERT_TRUE(host.Send(line("lf", longest)));
    ASSERT_TRUE(host.Send(line("crlf", longest) + "\r"));
    ASSERT_TRUE(host.Send(line("lf+1", longest + 1)));
    ASSERT_TRUE(host.Send(line("crlf+1", longest + 1) + "\r"));
    ASSERT_TRUE(host.Send(R"({"id":"end","method":"IsEnabled","request":{}})"));

    ASSERT_TRUE(host.WaitFor([](const Json::Value& out) { return out["id"] == "end"; })) << host.ErrorText();
    std::vector<std::string> answered;
    std::vector<uint64_t> refused;
    for (const Json::Value& out : host.Lines()) {
        if (out.isMember("line")) refused.push_back(out["line"].asUInt64());
        if (out.isMember("id") && out["status"] == 0) answered.push_back(out["id"].asString());
    }
    EXPECT_EQ(answered, (std::vector<std::string>{"lf", "crlf", "end"}));
    EXPECT_EQ(refused, (std::vector<uint64_t>{3, 4}));
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

// Non-ASCII text crosses the pipes as UTF-8, both ways, never escaped.
TEST_F(CrHostConsole, NonAsciiTextCrossesThePipesAsUtf8) {
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const std::string name = "Pl\xC3\xBCgin \xD0\x96 \xF0\x9F\x98\x80";  // ü, Ж and an emoji
    ASSERT_TRUE(host.Send(R"({"id":"set","method":"SetMethodSet","request":{"id":"M","displayName":"","methods":)"
                          R"([{"plugin":")" +
                          name + R"(","method":"m"}]}})"));
    ASSERT_TRUE(host.Send(R"({"id":"get","method":"GetMethodSet","request":{"id":"M"}})"));
    const auto answer = host.WaitFor([](const Json::Value& line) { return line["id"] == "get"; });
    ASSERT_TRUE(answer) << host.ErrorText();
    EXPECT_EQ((*answer)["response"]["methods"][0]["plugin"], name);
    bool raw = false;
    for (const std::string& line : host.RawLines())
        raw = raw || line.find("\"plugin\":\"" + name + "\"") != std::string::npos;
    EXPECT_TRUE(raw);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

TEST_F(CrHostConsole, StopsCleanlyOnEndOfInputAndOnARequestToStop) {
    {
        HostProcess host(Arguments());
        ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
        EXPECT_EQ(host.Method("IsEnabled")["status"], 0);
        EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
    }
    HostProcess host(Arguments());
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    EXPECT_EQ(host.Method("IsEnabled")["status"], 0);
    // The request arrives while the host waits for input that never ends.
    if (!host.process().RequestStop()) GTEST_SKIP() << "no way to ask the host to stop here";
    EXPECT_EQ(host.process().Wait(10'000), 0) << host.ErrorText();
}

// cr-host copied alone with the module: the logging library and the
// agent-component library it would load are missing, and standard error
// names each; beside the build's own libraries nothing is said.
TEST_F(CrHostConsole, ALibraryMissingBesideTheModuleIsNamed) {
    const std::wstring build = testing_support::ProgramDirectory();
    const std::wstring program = os::ExecutableFileName(L"cr-host"),
                       module = os::SharedLibraryFileName(L"ConditionalRunner");
    for (const std::wstring& file : {program, module})
        std::filesystem::copy_file(std::filesystem::path(os::JoinPath(build, file)),
                                   std::filesystem::path(dir_.File(file)));
    {
        HostProcess alone(Arguments(), L"", dir_.File(program));
        ASSERT_TRUE(alone.Started()) << os::WideToUtf8Lossy(alone.startError());
        EXPECT_EQ(alone.Method("IsEnabled")["status"], 0);
        EXPECT_EQ(alone.Finish(), 0) << alone.ErrorText();
        for (const wchar_t* stem : {L"log", L"ovra.proxy"})
            EXPECT_TRUE(ErrorMentions(alone, "no " + os::WideToUtf8Lossy(os::SharedLibraryFileName(stem))))
                << alone.ErrorText();
    }
    HostProcess built(Arguments());
    ASSERT_TRUE(built.Started()) << os::WideToUtf8Lossy(built.startError());
    EXPECT_EQ(built.Method("IsEnabled")["status"], 0);
    EXPECT_EQ(built.Finish(), 0) << built.ErrorText();
    for (const wchar_t* stem : {L"log", L"ovra.proxy"})
        EXPECT_EQ(built.ErrorText().find(os::WideToUtf8Lossy(os::SharedLibraryFileName(stem))), std::string::npos)
            << built.ErrorText();
}

TEST_F(CrHostConsole, OptionsTakeTheirValueAfterAnEqualsSignOrAsTheNextArgument) {
    {
        // Both forms are taken: the module named after '=' is the one missing.
        HostProcess host({L"--module=" + dir_.File(L"nothing-here"), L"--state", state_});
        EXPECT_EQ(host.Finish(), 3);
        EXPECT_TRUE(ErrorMentions(host, "cannot load the module")) << host.ErrorText();
    }
    {
        HostProcess host({L"--pretty", L"-h"});
        EXPECT_EQ(host.Finish(), 0);
    }
    const struct {
        std::vector<std::wstring> arguments;
        const char* reason;
    } refused[] = {
        {{L"--state="}, "--state needs a non-empty value"},
        {{L"--state", state_, L"--log"}, "--log needs a value"},
        {{L"--statefile"}, "unknown argument '--statefile'"},
        {{L"--stop-limit=86400001"}, "not '86400001'"},
        {{L"--stop-limit", L"12x"}, "--stop-limit needs a number of milliseconds from 0 to 86400000, not '12x'"},
    };
    for (const auto& [arguments, reason] : refused) {
        HostProcess host(arguments);
        EXPECT_EQ(host.Finish(), 2) << reason;
        EXPECT_TRUE(ErrorMentions(host, reason)) << host.ErrorText();
    }
}

TEST_F(CrHostConsole, CommandLineAndStartFailuresHaveTheirExitStatus) {
    {
        HostProcess host({L"--help"});
        EXPECT_EQ(host.Finish(), 0);
        EXPECT_TRUE(Eventually([&] {
            const auto text = host.BadLines();  // the usage is no JSON
            return !text.empty() && text[0].find("usage: cr-host") == 0;
        }));
    }
    {
        HostProcess host({L"--bogus"});
        EXPECT_EQ(host.Finish(), 2);
        EXPECT_TRUE(ErrorMentions(host, "unknown argument '--bogus'")) << host.ErrorText();
    }
    {
        HostProcess host({L"--state"});
        EXPECT_EQ(host.Finish(), 2);
    }
    {
        HostProcess host({L"--module", dir_.File(L"nothing-here"), L"--state", state_});
        EXPECT_EQ(host.Finish(), 3);
        EXPECT_TRUE(ErrorMentions(host, "cannot load the module")) << host.ErrorText();
    }
    {
        // A state file that is no settings tree is named, and left as it was.
        const std::string garbage = "not a settings tree";
        {
            os::FilePtr file = os::OpenFile(state_, L"wb");
            ASSERT_TRUE(file);
            ASSERT_EQ(std::fwrite(garbage.data(), 1, garbage.size(), file.get()), garbage.size());
        }
        HostProcess host(Arguments());
        EXPECT_EQ(host.Finish(), 3);
        EXPECT_TRUE(ErrorMentions(host, "state.json")) << host.ErrorText();
        const os::Expected<std::string> bytes = os::ReadWholeFile(state_);
        ASSERT_TRUE(bytes);
        EXPECT_EQ(*bytes, garbage);
    }
}

}  // namespace
