// The "ad." conditions over the reference host's user and computer managers.

#include <string>
#include <vector>

#include "condition_test_support.h"
#include "conditions/directory/active_directory.h"
#include "os/environment.h"
#include "os/utf8.h"

namespace condition_testing {
namespace {

using Product::ComputerManager::ComputerGroup;
using Product::UserManager::UserInfo;

constexpr const wchar_t* kGroupSid = L"S-1-5-21-1-2-3-513";
constexpr const wchar_t* kAdBaseInit = L"Product::Integration::ConditionManager::ConditionADBase::Init";
constexpr const wchar_t* kComputerInit = L"Product::Integration::ConditionManager::ConditionADComputerGroupsBase::Init";

UserInfo User(const std::wstring& sid, const std::wstring& name, std::vector<std::wstring> groups = {}) {
    UserInfo user{sid, name, L"corp.local", {}};
    for (const std::wstring& group : groups) user.memberOf.push_back({group, L""});
    return user;
}

std::string Sid(const char* type, const std::wstring& sid) {
    return std::string(R"({"type":")") + type + R"(","data":{"sid":")" + os::WideToUtf8Lossy(sid) + "\"}}";
}

// A SID of a local account: one of the machine's own account domain, or,
// where the machine has none, one that belongs to no account domain.
std::wstring LocalSid() {
    const std::wstring host = qv::GetHostAccountDomainSid();
    return host.empty() ? L"S-1-5-32-544" : host + L"-1001";
}

class DirectoryConditions : public ::testing::Test {
protected:
    host::UserManager& users() { return bench.host.users(); }
    host::ComputerManager& computer() { return bench.host.computer(); }
    // The condition after its initial computation on its queue.
    ConditionPtr Create(const std::string& json) {
        int32_t error = 0;
        ConditionPtr condition = bench.Create(json, &error);
        EXPECT_EQ(error, 0) << json;
        bench.Settle();
        if (condition) {
            EXPECT_EQ(condition->Subscribe(&recorder), 0);
        }
        return condition;
    }

    LogCapture capture;
    Bench bench{false};
    Recorder recorder;
};

// The state follows the last event about a member: one of two members
// logging off makes it false although the other is still logged on.
TEST_F(DirectoryConditions, GroupFollowsTheLastEventAboutAMember) {
    ConditionPtr group = Create(Sid("ad.Group", kGroupSid));
    ASSERT_NE(group, nullptr);
    EXPECT_FALSE(StateOf(*group));
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {L"S-1-5-21-1-2-3-999", L"s-1-5-21-1-2-3-513"})), 0);
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob", {kGroupSid})), 0);
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1106", L"eve", {L"S-1-5-21-1-2-3-999"})), 0);
    EXPECT_TRUE(StateOf(*group));
    EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1106"), 0);  // not a member: no change
    EXPECT_EQ(users().Lock(L"S-1-5-21-1-2-3-1104", true), 0);
    EXPECT_TRUE(StateOf(*group));
    EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1105"), 0);
    EXPECT_FALSE(StateOf(*group));
    EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false}));
    EXPECT_EQ(group->Unsubscribe(&recorder), 0);
    group.reset();
    EXPECT_EQ(users().SubscriberCount(), 0u);
}

TEST_F(DirectoryConditions, UserMatchesItsSidWhateverTheLetterCase) {
    ConditionPtr user = Create(Sid("ad.User", L"S-1-5-21-1-2-3-1104"));
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob")), 0);
    EXPECT_FALSE(StateOf(*user));
    EXPECT_EQ(users().LogOn(User(L"s-1-5-21-1-2-3-1104", L"ann")), 0);
    EXPECT_TRUE(StateOf(*user));
    EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1104"), 0);
    EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false}));
    EXPECT_EQ(user->Unsubscribe(&recorder), 0);
}

// The users already logged on are taken into account on the condition's
// queue, asked for only while logging is enabled.
TEST_F(DirectoryConditions, UsersAlreadyLoggedOnCountOnlyWhileLoggingIsEnabled) {
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {kGroupSid})), 0);
    ConditionPtr seen = Create(Sid("ad.Group", kGroupSid));
    ASSERT_NE(seen, nullptr);
    EXPECT_TRUE(StateOf(*seen));
    EXPECT_TRUE(capture.Contains(logging::kDetail,
                                 L"Product::Integration::ConditionManager::ConditionADBase::computeState",
                                 L"GetLoggedUsers returned 0"));
    EXPECT_EQ(seen->Unsubscribe(&recorder), 0);
}

TEST(DirectoryConditionsWithoutLogging, UsersAlreadyLoggedOnAreNotSeen) {
    ASSERT_FALSE(logging::CLogDLL::Exists());
    Bench quiet(false);
    EXPECT_EQ(quiet.host.users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {kGroupSid})), 0);
    ConditionPtr unseen = quiet.Create(Sid("ad.Group", kGroupSid));
    ASSERT_NE(unseen, nullptr);
    quiet.Settle();
    EXPECT_FALSE(StateOf(*unseen));
    EXPECT_EQ(quiet.host.users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob", {kGroupSid})), 0);
    EXPECT_TRUE(StateOf(*unseen));
}

TEST_F(DirectoryConditions, InitRefusesMissingDataAndLocalSids) {
    struct Case {
        std::string json;
        std::wstring message;
    };
    const std::wstring local = LocalSid();
    const std::vector<Case> cases = {
        {R"({"type":"ad.User"})", L"Could not load data for condition type ad.User, error = 87."},
        {R"({"type":"ad.Group","data":{}})", L"Failed to load subnode sid"},
        {R"({"type":"ad.User.OU","data":{"sid":"x"}})", L"Failed to load subnode distinguishedName"},
        {Sid("ad.User", local), L"Sid [" + local + L"] does not belong to a domain"},
        {Sid("ad.Group", local), L"Sid [" + local + L"] does not belong to a domain"},
        {R"({"type":"ad.ComputerGroup","data":{}})", L"Failed to load subnode sid"},
        {R"({"type":"ad.ComputerGroup.OU"})",
         L"Could not load data for condition type ad.ComputerGroup.OU, error = 87."},
    };
    for (const Case& c : cases) {
        capture.Clear();
        int32_t error = 0;
        EXPECT_EQ(bench.Create(c.json, &error), nullptr) << c.json;
        EXPECT_EQ(error, qv::status::kInvalidParameter) << c.json;
        EXPECT_TRUE(capture.Contains(c.message)) << c.json;
    }
    EXPECT_EQ(users().SubscriberCount(), 0u);
    EXPECT_EQ(computer().SubscriberCount(), 0u);
}

// Without a directory to ask, both ways of finding the user's DN fail: each
// is logged and the user does not count as lying under the OU.
TEST_F(DirectoryConditions, UserOuIsFalseWhenTheUsersDnCannotBeFound) {
    ConditionPtr ou = Create(R"({"type":"ad.User.OU","data":{"distinguishedName":"OU=Sales,DC=corp,DC=local"}})");
    ASSERT_NE(ou, nullptr);
    capture.Clear();
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann")), 0);
    EXPECT_FALSE(StateOf(*ou));
    const auto errors = capture.Messages(logging::kError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0], errors[1]);
    // A user without a name is not looked up at all.
    capture.Clear();
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"")), 0);
    EXPECT_TRUE(capture.Messages(logging::kError).empty());
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

TEST_F(DirectoryConditions, ComputerGroupFollowsMembershipChangesOnly) {
    computer().SetGroups({{L"CN=Servers,DC=corp", L"s-1-5-21-1-2-3-513"}});
    ConditionPtr group = Create(Sid("ad.ComputerGroup", kGroupSid));
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(StateOf(*group));
    // Still a member, through a changed list: nobody is told.
    EXPECT_EQ(computer().SetGroups({{L"CN=Other,DC=corp", L"S-1-5-21-1-2-3-600"}, {L"CN=Servers,DC=corp", kGroupSid}}),
              1u);
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_TRUE(capture.Contains(L"\tnew computer group: dn: CN=Other,DC=corp; sid: S-1-5-21-1-2-3-600"));
    computer().SetGroups({});
    EXPECT_FALSE(StateOf(*group));
    computer().SetOrganisationalUnit(L"CN=PC1,DC=corp");  // not this condition's concern
    EXPECT_EQ(recorder.States(), std::vector<bool>{false});

    // Groups that cannot be read count as none.
    computer().SetGroups({{L"CN=Servers,DC=corp", kGroupSid}});
    computer().FailReads(qv::status::kNotReady);
    ConditionPtr unread = Create(Sid("ad.ComputerGroup", kGroupSid));
    ASSERT_NE(unread, nullptr);
    EXPECT_FALSE(StateOf(*unread));
    EXPECT_TRUE(capture.Contains(
        logging::kError, L"Product::Integration::ConditionManager::ConditionADComputerGroup::ComputeCurrentState",
        L"getting current computer groups failed with err 21"));
    EXPECT_EQ(group->Unsubscribe(&recorder), 0);
    EXPECT_EQ(unread->Unsubscribe(&recorder), 0);
    group.reset();
    unread.reset();
    EXPECT_EQ(computer().SubscriberCount(), 0u);
}

TEST_F(DirectoryConditions, ComputerOuFollowsTheComputersPlace) {
    if (os::RunningUnderWine()) GTEST_SKIP() << "Wine's DsGetRdnW is an unimplemented stub that aborts the process";
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    ConditionPtr ou =
        Create(R"({"type":"ad.ComputerGroup.OU","data":{"distinguishedName":"OU=Servers,DC=corp,DC=local"}})");
    ASSERT_NE(ou, nullptr);
    EXPECT_TRUE(StateOf(*ou));
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    computer().SetGroups({});  // not this condition's concern
    EXPECT_EQ(recorder.Count(), 0u);
    computer().SetOrganisationalUnit(L"CN=PC1,OU=servers,DC=corp,DC=local");
    EXPECT_FALSE(StateOf(*ou));
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    // A DN that cannot be split counts as not below, and is logged.
    computer().SetOrganisationalUnit(L"");
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_TRUE(capture.Contains(L"No components detected in the computer's DN."));
    EXPECT_EQ(recorder.States(), (std::vector<bool>{false, true, false}));
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

TEST_F(DirectoryConditions, ComputerConditionsNeedTheComputerManager) {
    Bench bare(false, false);
    bare.host.components().Unregister(host::ReferenceHost::kComputerManagerName);
    ASSERT_EQ(bare.manager.Init(bare.host.main()), 0);
    int32_t error = 0;
    EXPECT_EQ(bare.Create(Sid("ad.ComputerGroup", kGroupSid), &error), nullptr);
    EXPECT_EQ(error, qv::status::kDependencyNotFound);
    EXPECT_TRUE(
        capture.Contains(logging::kError, kComputerInit, L"computer groups manager plugin dependency not found!"));
}

}  // namespace
}  // namespace condition_testing
