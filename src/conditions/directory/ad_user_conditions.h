#pragma once
// Conditions over the users logged on to the machine, as the host's user
// manager reports them:
//   "ad.User"     a given domain user ("data"."sid")
//   "ad.Group"    a member of a given domain group ("data"."sid")
//   "ad.User.OU"  a user placed under a given organisational unit
//                 ("data"."distinguishedName")
//
// The state follows the last event that concerned a matching user: a
// matching user's log-on makes it true, a matching user's log-off false,
// even while another matching user is still logged on; events about users
// that do not match leave it unchanged.
//
// The initial state is computed on the condition's queue ("AdBase") after
// Init has subscribed to the reports, from the users logged on then, as if
// each had just logged on; that request is made only while logging is
// enabled, so that without logging a condition starts false and waits for
// the next log-on. A report about a matching user that arrives while that
// list is being read is newer than the list, which is then dropped.
//
// Thread rules: log-on and log-off reports arrive on the user manager's
// threads, the initial computation runs on the queue's thread; `mutex_`
// guards the state and the count of applied reports, and notifications are
// sent outside it. Nothing thrown leaves a report's callback. Uninit
// unsubscribes from the user manager, then closes the queue (waiting for a
// computation in progress).
#include <cstdint>
#include <map>
#include <string>

#include "conditions/condition_base.h"
#include "conditions/condition_queue.h"
#include "os/thread_annotations.h"
#include "qv/user_manager.h"

namespace Product::Integration::ConditionManager {

class ConditionADBase
    : public ConditionBaseWithDepends<ConditionBase, Product::UserManager::IUserManager, EvQueueWithName>,
      public Product::UserManager::IUserManager::IEvents {
public:
    using UserInfo = Product::UserManager::UserInfo;
    static constexpr const wchar_t* kQueueName = L"AdBase";

    ~ConditionADBase() override;

    // kInvalidParameter when "data" or its member is absent (or a SID is not
    // a domain's); kDependencyNotFound without the user manager or a queue;
    // the user manager's status when it refuses the subscription.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Unsubscribes from the user manager and closes the queue. Idempotent.
    void Uninit() override;
    // The cached state; 0.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;

    // Reads the type's "data"; 0 or kInvalidParameter.
    [[nodiscard]] virtual int32_t LoadConditionData(const Json::Value& json) = 0;
    // When `user` passes the type's test, the state becomes `newState`
    // (notifying on a change). Returns the state after the call.
    bool UpdateForUser(const UserInfo& user, bool newState);

    int32_t OnUserLoggedOn(const UserInfo& user) override;
    int32_t OnUserLoggedOff(const UserInfo& user) override;
    int32_t OnUserSessionLocked(const UserInfo&) override { return 0; }
    int32_t OnUserSessionUnlocked(const UserInfo&) override { return 0; }

    // {"users": [{"sid", "name", "domain", "matched": bool}]}: the users the
    // user manager reports logged on now, each put to the type's test.
    [[nodiscard]] Json::Value Observed() override;

protected:
    enum class Event { kLogOn, kLogOff };
    // Whether `user` passes the type's test now; remembers nothing.
    virtual bool Holds(const UserInfo& user) const = 0;
    // The type's test of `user`, for a log-on (also of a user found logged on
    // at start) or a log-off.
    virtual bool Matches(const UserInfo& user, Event event) = 0;

private:
    // With `reload`, tests every logged-on user as if it had just logged on.
    void ComputeState(bool reload);
    // Sets the state to `newState` for a report, notifying when it changed;
    // returns it.
    bool ApplyReport(bool newState);
    bool CurrentState();

    os::Mutex mutex_;
    bool state_ CR_GUARDED_BY(mutex_) = false;
    uint64_t reports_ CR_GUARDED_BY(mutex_) = 0;  // matching reports applied
    bool subscribed_ = false;                     // owner's thread only
};

class ConditionADUser final : public ConditionADBase {
public:
    static constexpr const wchar_t* kType = L"ad.User";
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;

protected:
    // The user's SID equals "sid", ignoring case.
    bool Matches(const UserInfo& user, Event) override { return Holds(user); }
    bool Holds(const UserInfo& user) const override;

private:
    std::wstring sid_;
};

class ConditionADGroup final : public ConditionADBase {
public:
    static constexpr const wchar_t* kType = L"ad.Group";
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;

protected:
    // One of the user's groups has the SID "sid", ignoring case.
    bool Matches(const UserInfo& user, Event) override { return Holds(user); }
    bool Holds(const UserInfo& user) const override;

private:
    std::wstring sid_;
};

class ConditionADUserOU final : public ConditionADBase {
public:
    static constexpr const wchar_t* kType = L"ad.User.OU";
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;
    // Finds the user's DN from the directory, or failing that from what Group
    // Policy recorded, and tests it against the OU. The first way that does
    // not throw decides; false when both throw (each logged) or when the
    // user's name is empty.
    bool IsUserPartOfOU(const UserInfo& user) const;

protected:
    // The user's DN lies strictly below "distinguishedName". A log-on asks
    // the directory and remembers the answer for the user's SID; the log-off
    // uses that answer, so it never depends on the directory. Only a user
    // whose log-on this condition never saw is looked up at log-off.
    bool Matches(const UserInfo& user, Event event) override;
    bool Holds(const UserInfo& user) const override { return IsUserPartOfOU(user); }

private:
    std::wstring ouDn_;
    os::Mutex loggedOnMutex_;
    std::map<std::wstring, bool> loggedOn_ CR_GUARDED_BY(loggedOnMutex_);  // upper-case SID -> below the OU
};

}  // namespace Product::Integration::ConditionManager
