#include "conditions/directory/ad_user_conditions.h"

#include <exception>
#include <vector>

#include "conditions/directory/active_directory.h"
#include "conditions/guarded_callback.h"
#include "model/json_composed_serializer.h"
#include "os/text_case.h"
#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {

constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionADBase::Init";
constexpr const wchar_t* kComputeState = L"Product::Integration::ConditionManager::ConditionADBase::computeState";
constexpr const wchar_t* kUserLoad = L"Product::Integration::ConditionManager::ConditionADUser::LoadConditionData";
constexpr const wchar_t* kGroupLoad = L"Product::Integration::ConditionManager::ConditionADGroup::LoadConditionData";
constexpr const wchar_t* kIsUserPartOfOU = L"Product::Integration::ConditionManager::ConditionADUserOU::IsUserPartOfOU";
constexpr const wchar_t* kLoggedOn = L"Product::Integration::ConditionManager::ConditionADBase::OnUserLoggedOn";
constexpr const wchar_t* kLoggedOff = L"Product::Integration::ConditionManager::ConditionADBase::OnUserLoggedOff";

using Product::UserManager::IUserManager;
using qv::ActiveDirectory::active_directory_exception;
using qv::ActiveDirectory::EqualIgnoringCase;

// Reads the string member `name` of "data"; 0 or kInvalidParameter.
int32_t LoadDataString(const Json::Value& json, const wchar_t* name, std::wstring& out) {
    const Json::Value* data = qv::JsonComposedSerializer::Find(json, L"data");
    if (!data) return qv::status::kInvalidParameter;
    return qv::JsonComposedSerializer::Load(*data, name, out) ? 0 : qv::status::kInvalidParameter;
}

// Reads "sid" and refuses one whose account is not a domain's.
int32_t LoadDomainSid(const Json::Value& json, const wchar_t* function, std::wstring& sid) {
    if (const int32_t status = LoadDataString(json, L"sid", sid); status != 0) return status;
    if (!qv::ActiveDirectory::IsDomainSid(sid)) {
        logging::Log(logging::kError, function, L"Sid [%s] does not belong to a domain", sid.c_str());
        return qv::status::kInvalidParameter;
    }
    return 0;
}

}  // namespace

ConditionADBase::~ConditionADBase() { ConditionADBase::Uninit(); }

int32_t ConditionADBase::Init(const InitData& data) {
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    if (const int32_t status = LoadConditionData(data.json); status != 0) {
        logging::Log(logging::kError, kInit, L"Could not load data for condition type %s, error = %d.", GetType(),
                     static_cast<int>(status));
        return status;
    }
    IUserManager* users = Dependency<IUserManager>();
    if (!users) {
        logging::Log(logging::kError, kInit, L"user manager plugin dependency not found!");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = OpenQueue(Slot<EvQueueWithName>().queue(), kQueueName, kInit); status != 0)
        return status;
    if (const int32_t status = users->Subscribe(this); status != 0) {
        logging::Log(logging::kError, kInit, L"register to user manager plugin failed [%d]", static_cast<int>(status));
        return status;
    }
    subscribed_ = true;
    if (const int32_t status = Slot<EvQueueWithName>().queue().Post([this] { ComputeState(true); }, 0); status != 0)
        logging::Log(logging::kWarning, kInit, L"cannot schedule the initial computation [%d]",
                     static_cast<int>(status));
    return 0;
}

void ConditionADBase::Uninit() {
    if (subscribed_) {
        static_cast<void>(Dependency<IUserManager>()->Unsubscribe(this));  // refused only when not subscribed
        subscribed_ = false;
    }
    Slot<EvQueueWithName>().queue().Close();
}

int32_t ConditionADBase::GetState(bool* state, bool) {
    if (!state) return qv::status::kInvalidParameter;
    os::MutexLock lock(mutex_);
    *state = state_;
    return 0;
}

bool ConditionADBase::CurrentState() {
    os::MutexLock lock(mutex_);
    return state_;
}

void ConditionADBase::ComputeState(bool reload) {
    logging::CallTrace trace(kComputeState);
    if (!reload) {
        os::MutexLock lock(mutex_);
        return;
    }
    const uint64_t reportsBefore = [this] {
        os::MutexLock lock(mutex_);
        return reports_;
    }();
    // The users are asked for only to be logged: without logging the list
    // stays empty and the state waits for the next log-on.
    std::vector<UserInfo> users;
    if (logging::CLogDLL::Exists())
        logging::Log(logging::kDetail, kComputeState, L"GetLoggedUsers returned %d",
                     static_cast<int>(Dependency<IUserManager>()->GetLoggedUsers(&users)));
    // Every user is tested (the OU test remembers each answer for the log-off).
    bool anyMatch = false;
    for (const UserInfo& user : users) anyMatch = Matches(user, Event::kLogOn) || anyMatch;
    if (!anyMatch) return;
    {
        os::MutexLock lock(mutex_);
        if (reports_ != reportsBefore) return;  // a newer report has decided
        if (state_) return;
        state_ = true;
    }
    static_cast<void>(NotifyChanged(true));  // the subscribers' statuses have nobody to go to
}

bool ConditionADBase::ApplyReport(bool newState) {
    bool changed = false;
    {
        os::MutexLock lock(mutex_);
        ++reports_;
        changed = state_ != newState;
        state_ = newState;
    }
    if (changed) static_cast<void>(NotifyChanged(newState));  // the subscribers' statuses have nobody to go to
    return CurrentState();
}

bool ConditionADBase::UpdateForUser(const UserInfo& user, bool newState) {
    if (Matches(user, newState ? Event::kLogOn : Event::kLogOff)) return ApplyReport(newState);
    return CurrentState();
}

int32_t ConditionADBase::OnUserLoggedOn(const UserInfo& user) {
    // A failure is logged by Guarded; the host could do nothing with it.
    static_cast<void>(Guarded(kLoggedOn, [&] {
        UpdateForUser(user, true);
        return 0;
    }));
    return 0;
}

int32_t ConditionADBase::OnUserLoggedOff(const UserInfo& user) {
    static_cast<void>(Guarded(kLoggedOff, [&] {
        UpdateForUser(user, false);
        return 0;
    }));
    return 0;
}

Json::Value ConditionADBase::Observed() {
    IUserManager* users = Dependency<IUserManager>();
    std::vector<UserInfo> loggedOn;
    if (!users || users->GetLoggedUsers(&loggedOn) != 0) return Json::Value();
    Json::Value observed(Json::objectValue);
    Json::Value& list = observed["users"] = Json::Value(Json::arrayValue);
    for (const UserInfo& user : loggedOn) {
        Json::Value entry(Json::objectValue);
        entry["sid"] = os::WideToUtf8Lossy(user.sid);
        entry["name"] = os::WideToUtf8Lossy(user.name);
        entry["domain"] = os::WideToUtf8Lossy(user.domain);
        entry["matched"] = Holds(user);
        list.append(entry);
    }
    return observed;
}

int32_t ConditionADUser::LoadConditionData(const Json::Value& json) { return LoadDomainSid(json, kUserLoad, sid_); }

bool ConditionADUser::Holds(const UserInfo& user) const { return EqualIgnoringCase(user.sid, sid_); }

int32_t ConditionADGroup::LoadConditionData(const Json::Value& json) { return LoadDomainSid(json, kGroupLoad, sid_); }

bool ConditionADGroup::Holds(const UserInfo& user) const {
    for (const Product::UserManager::MemberOf& group : user.memberOf)
        if (EqualIgnoringCase(group.sid, sid_)) return true;
    return false;
}

int32_t ConditionADUserOU::LoadConditionData(const Json::Value& json) {
    return LoadDataString(json, L"distinguishedName", ouDn_);
}

bool ConditionADUserOU::Matches(const UserInfo& user, Event event) {
    const std::wstring key = os::UpperCase(user.sid);
    if (event == Event::kLogOff) {
        os::MutexLock lock(loggedOnMutex_);
        if (auto found = loggedOn_.find(key); found != loggedOn_.end()) {
            const bool below = found->second;
            loggedOn_.erase(found);
            return below;
        }
    }
    const bool below = IsUserPartOfOU(user);
    if (event == Event::kLogOn) {
        os::MutexLock lock(loggedOnMutex_);
        loggedOn_[key] = below;
    }
    return below;
}

bool ConditionADUserOU::IsUserPartOfOU(const UserInfo& user) const {
    if (user.name.empty()) return false;
    // Each way of finding the user's DN may throw; the next one is then tried.
    const auto attempt = [&](auto findDn, bool& answer) {
        try {
            answer = qv::ActiveDirectory::IsPartOfOU(findDn(), ouDn_);
            return true;
        } catch (const active_directory_exception& e) {
            logging::Log(logging::kError, kIsUserPartOfOU, L"%s", e.message().c_str());
        } catch (...) {
            logging::Log(logging::kError, kIsUserPartOfOU, L"Unknown exception thrown.");
        }
        return false;
    };
    bool answer = false;
    if (attempt([&] { return qv::ActiveDirectory::ConvertNameToDistinguishedName(user.name, user.domain); }, answer))
        return answer;
    if (attempt([&] { return qv::ActiveDirectory::GetUserDistinguishedNameFromRegistry(user.sid); }, answer))
        return answer;
    return false;
}

}  // namespace Product::Integration::ConditionManager
