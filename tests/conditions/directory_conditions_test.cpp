// The "ad." conditions over the reference host's user and computer managers.

#include <string>
#include <vector>

#include "condition_test_support.h"
#include "conditions/directory/active_directory.h"
#include "fake_directory.h"
#include "os/utf8.h"

namespace condition_testing {
namespace {

using Product::ComputerManager::ComputerGroup;
using Product::UserManager::UserInfo;

constexpr const wchar_t* kGroupSid = L"S-1-5-21-1-2-3-513";
constexpr const wchar_t* kAdBaseInit = L"Product::Integration::ConditionManager::ConditionADBase::Init";
constexpr const wchar_t* kComputerInit = L"Product::Integration::ConditionManager::ConditionADComputerGroupsBase::Init";
constexpr const wchar_t* kIsUserPartOfOU = L"Product::Integration::ConditionManager::ConditionADUserOU::IsUserPartOfOU";
constexpr const char* kSalesOu = R"({"type":"ad.User.OU","data":{"distinguishedName":"OU=Sales,DC=corp,DC=local"}})";
constexpr const char* kServersOu =
    R"({"type":"ad.ComputerGroup.OU","data":{"distinguishedName":"OU=Servers,DC=corp,DC=local"}})";

UserInfo User(const std::wstring& sid, const std::wstring& name, std::vector<std::wstring> groups = {}) {
    UserInfo user{sid, name, L"corp.local", {}};
    for (const std::wstring& group : groups) user.memberOf.push_back({group, L""});
    return user;
}

std::string Sid(const char* type, const std::wstring& sid) {
    return std::string(R"({"type":")") + type + R"(","data":{"sid":")" + os::WideToUtf8Lossy(sid) + "\"}}";
}

// A SID of a local account: one of the machine's own account domain.
std::wstring LocalSid() { return qv::GetHostAccountDomainSid() + L"-1001"; }

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
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    ConditionPtr ou = Create(kServersOu);
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

// The user's DN: the directory's answer decides when it gives one, true or
// false; the Group Policy record is read only when the directory throws (a
// user it does not know is logged as not found); both failing gives false.
TEST_F(DirectoryConditions, UserOuTakesTheFirstWayThatFindsTheUsersDn) {
    FakeDirectory directory;
    directory.SetUserDn(L"ann@corp.local", L"CN=Ann,OU=Sales,DC=corp,DC=local");
    directory.SetUserDn(L"bob@corp.local", L"CN=Bob,OU=Support,DC=corp,DC=local");
    directory.SetRecordedDn(L"S-1-5-21-1-2-3-1105", L"CN=Bob,OU=Sales,DC=corp,DC=local");
    os::NameCrack unknown;
    unknown.outcome = os::NameCrackOutcome::kCracked;
    unknown.itemStatus = os::kNameErrorNotFound;
    directory.SetCrack(L"eve@corp.local", unknown);
    directory.SetRecordedDn(L"S-1-5-21-1-2-3-1106", L"CN=Eve,OU=Sales,DC=corp,DC=local");
    ConditionPtr ou = Create(kSalesOu);
    ASSERT_NE(ou, nullptr);

    capture.Clear();
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob")), 0);
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_EQ(directory.RecordReads(), 0);  // the directory answered: the record is not read
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann")), 0);
    EXPECT_TRUE(StateOf(*ou));
    EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1104"), 0);
    EXPECT_TRUE(capture.Messages(logging::kError).empty());

    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1106", L"eve")), 0);
    EXPECT_TRUE(StateOf(*ou));
    EXPECT_EQ(directory.RecordReads(), 1);
    EXPECT_TRUE(
        capture.Contains(logging::kError, kIsUserPartOfOU,
                         L"Error (status 2) converting name to distinguished name; returning ERROR_NOT_FOUND."));
    EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

// A log-off is decided by what the user's log-on found, also when the
// directory cannot be asked any more.
TEST_F(DirectoryConditions, UserOuLogOffNeedsNoDirectory) {
    FakeDirectory directory;
    directory.SetUserDn(L"ann@corp.local", L"CN=Ann,OU=Sales,DC=corp,DC=local");
    directory.SetUserDn(L"bob@corp.local", L"CN=Bob,OU=Sales,DC=corp,DC=local");
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann")), 0);
    ConditionPtr ou = Create(kSalesOu);  // ann is found by the initial computation
    ASSERT_NE(ou, nullptr);
    EXPECT_TRUE(StateOf(*ou));
    EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1104"), 0);
    EXPECT_FALSE(StateOf(*ou));

    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob")), 0);
    EXPECT_TRUE(StateOf(*ou));
    directory.ForgetAll();
    const int cracks = directory.Cracks();
    EXPECT_EQ(users().LogOff(L"s-1-5-21-1-2-3-1105"), 0);
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_EQ(directory.Cracks(), cracks);
    EXPECT_EQ(recorder.States(), (std::vector<bool>{false, true, false}));
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

// A log-off reported while the condition reads the users already logged on
// is newer than that list: the user does not count as logged on.
TEST_F(DirectoryConditions, UserLoggingOffDuringTheInitialReadDoesNotCount) {
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {kGroupSid})), 0);
    users().DuringNextRead([this] { EXPECT_EQ(users().LogOff(L"S-1-5-21-1-2-3-1104"), 0); });
    ConditionPtr user = Create(Sid("ad.User", L"S-1-5-21-1-2-3-1104"));
    ASSERT_NE(user, nullptr);
    EXPECT_FALSE(StateOf(*user));
    // Another user's log-on during the read leaves the list as it was read.
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {kGroupSid})), 0);
    users().DuringNextRead([this] { EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob")), 0); });
    ConditionPtr group = Create(Sid("ad.Group", kGroupSid));
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(StateOf(*group));
    EXPECT_EQ(user->Unsubscribe(&recorder), 0);
    EXPECT_EQ(group->Unsubscribe(&recorder), 0);
}

TEST_F(DirectoryConditions, UnreadableUsersLeaveTheStateToTheNextLogOn) {
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1104", L"ann", {kGroupSid})), 0);
    users().FailGetLoggedUsers(qv::status::kNotReady);
    ConditionPtr group = Create(Sid("ad.Group", kGroupSid));
    ASSERT_NE(group, nullptr);
    EXPECT_FALSE(StateOf(*group));
    EXPECT_TRUE(capture.Contains(logging::kDetail,
                                 L"Product::Integration::ConditionManager::ConditionADBase::computeState",
                                 L"GetLoggedUsers returned 21"));
    EXPECT_EQ(users().LogOn(User(L"S-1-5-21-1-2-3-1105", L"bob", {kGroupSid})), 0);
    EXPECT_TRUE(StateOf(*group));
    EXPECT_EQ(group->Unsubscribe(&recorder), 0);
}

TEST_F(DirectoryConditions, RefusedRegistrationFailsInit) {
    users().FailSubscribe(qv::status::kNotReady);
    computer().FailRegistration(qv::status::kFunctionFailed);
    for (const std::string& json : {Sid("ad.User", kGroupSid), Sid("ad.ComputerGroup", kGroupSid)}) {
        int32_t error = 0;
        EXPECT_EQ(bench.Create(json, &error), nullptr) << json;
        EXPECT_NE(error, 0) << json;
    }
    EXPECT_TRUE(capture.Contains(logging::kError, kAdBaseInit, L"register to user manager plugin failed [21]"));
    EXPECT_TRUE(capture.Contains(logging::kError, kComputerInit, L"register to computer groups manager plugin failed"));
    EXPECT_EQ(users().SubscriberCount(), 0u);
    EXPECT_EQ(computer().SubscriberCount(), 0u);
}

// A change reported while the condition reads the current value is newer
// than what it read, and decides.
TEST_F(DirectoryConditions, ComputerChangeDuringTheInitialReadIsNotLost) {
    computer().DuringNextRead([this] { computer().SetGroups({{L"CN=Servers,DC=corp", kGroupSid}}); });
    ConditionPtr group = Create(Sid("ad.ComputerGroup", kGroupSid));
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(StateOf(*group));

    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    computer().DuringNextRead([this] { computer().SetOrganisationalUnit(L"CN=PC1,OU=Clients,DC=corp,DC=local"); });
    ConditionPtr ou = Create(kServersOu);
    ASSERT_NE(ou, nullptr);
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_EQ(group->Unsubscribe(&recorder), 0);
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

TEST_F(DirectoryConditions, UnreadableComputerOuIsNotBelowAnyOu) {
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    computer().FailReads(qv::status::kNotReady);
    ConditionPtr ou = Create(kServersOu);
    ASSERT_NE(ou, nullptr);
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_TRUE(capture.Contains(
        logging::kError, L"Product::Integration::ConditionManager::ConditionADComputerGroupOU::ComputeCurrentState",
        L"getting current computer organisational unit failed with err 21"));
    computer().FailReads(0);
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    EXPECT_TRUE(StateOf(*ou));
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

// Whatever the OU test throws stays in the condition: the computer counts as
// not below the OU, and the report's thread goes on.
TEST_F(DirectoryConditions, ComputerOuTestThatThrowsCountsAsNotBelow) {
    FakeDirectory directory;
    computer().SetOrganisationalUnit(L"CN=PC1,OU=Servers,DC=corp,DC=local");
    ConditionPtr ou = Create(kServersOu);
    ASSERT_NE(ou, nullptr);
    EXPECT_TRUE(StateOf(*ou));
    directory.ThrowOnSplit([] { throw std::bad_alloc(); });
    EXPECT_NO_THROW(computer().SetOrganisationalUnit(L"CN=PC2,OU=Servers,DC=corp,DC=local"));
    EXPECT_FALSE(StateOf(*ou));
    EXPECT_TRUE(capture.Contains(
        logging::kError,
        L"Product::Integration::ConditionManager::ConditionADComputerGroupOU::OnComputerOrganisationalUnitsChanged",
        L"Unknown exception thrown."));
    EXPECT_EQ(recorder.States(), std::vector<bool>{false});
    EXPECT_EQ(ou->Unsubscribe(&recorder), 0);
}

}  // namespace
}  // namespace condition_testing
