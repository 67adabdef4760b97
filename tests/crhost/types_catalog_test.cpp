// cr-host's "types": the catalog of condition types agrees with what the
// module's condition manager accepts, type by type and member by member.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "host_process.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

using crhost_test::HostProcess;
using crhost_test::Parse;

Json::Value Explain(HostProcess& host, const Json::Value& condition) {
    Json::Value action(Json::objectValue);
    action["host"] = "explain";
    action["condition"] = condition;
    return host.Host(action);
}

TEST(CrHostTypes, EveryListedTypeIsBuiltFromItsExampleAndNeedsExactlyItsRequiredMembers) {
    testing_support::TempDir dir;
    HostProcess host(crhost_test::StateAndLogIn(dir));
    ASSERT_TRUE(host.Started()) << os::WideToUtf8Lossy(host.startError());
    const Json::Value answer = host.Host(Parse(R"({"host":"types"})"));
    ASSERT_EQ(answer["status"], 0) << answer.toStyledString();
    const Json::Value& types = answer["types"];
    ASSERT_EQ(types.size(), 21u);

    std::set<std::string> keywords;
    for (const Json::Value& type : types) {
        const std::string keyword = type["type"].asString();
        SCOPED_TRACE(keyword);
        EXPECT_TRUE(keywords.insert(keyword).second) << "listed twice";
        EXPECT_FALSE(type["meaning"].asString().empty());
        const Json::Value& example = type["example"];
        ASSERT_EQ(example["type"], keyword);

        const Json::Value built = Explain(host, example);
        EXPECT_EQ(built["status"], 0) << built.toStyledString();
        EXPECT_EQ(built["tree"]["type"], keyword);

        // The example uses every member listed, and only those.
        const Json::Value& data = example["data"];
        EXPECT_EQ(data.size(), type["data"].size());
        for (const Json::Value& member : type["data"]) {
            const std::string name = member["name"].asString();
            SCOPED_TRACE(name);
            ASSERT_TRUE(data.isMember(name)) << "the example leaves out a listed member";
            const std::string json = member["json"].asString();
            EXPECT_EQ(json, data[name].isString()   ? "string"
                            : data[name].isBool()   ? "boolean"
                            : data[name].isArray()  ? "array"
                            : data[name].isObject() ? "object"
                                                    : "other");

            Json::Value without = example;
            without["data"].removeMember(name);
            const Json::Value left = Explain(host, without);
            if (member["optional"].asBool())
                EXPECT_EQ(left["status"], 0) << "an optional member is needed after all";
            else
                EXPECT_EQ(left["status"], 87) << "a required member may be left out";

            Json::Value wrong = example;
            wrong["data"][name] = json == "string" ? Json::Value(5) : Json::Value("text");
            EXPECT_NE(Explain(host, wrong)["status"], 0) << "a member of the wrong JSON type is accepted";
        }
    }
    // An unlisted type is refused as unknown.
    EXPECT_EQ(Explain(host, Parse(R"({"type":"network.Unlisted"})"))["status"], qv::status::kCallNotImplemented);
    EXPECT_EQ(host.Finish(), 0) << host.ErrorText();
}

}  // namespace
