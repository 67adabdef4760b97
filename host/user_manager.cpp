#include "host/user_manager.h"

#include <utility>

#include "os/text_case.h"
#include "qv/status.h"

namespace host {
namespace {

bool SameSid(const std::wstring& a, const std::wstring& b) { return os::EqualIgnoringCase(a, b); }

}  // namespace

void* UserManager::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IUserManager::iid))
        return static_cast<IUserManager*>(this);
    return nullptr;
}

int32_t UserManager::GetLoggedUsers(std::vector<UserInfo>* users) {
    if (!users) return qv::status::kInvalidParameter;
    std::function<void()> action;
    {
        std::lock_guard lock(mutex_);
        if (getFailure_ != 0) return getFailure_;
        *users = users_;
        action = std::exchange(duringNextRead_, nullptr);
    }
    if (action) action();
    return 0;
}

int32_t UserManager::Subscribe(IEvents* subscriber) {
    {
        std::lock_guard lock(mutex_);
        if (subscribeFailure_ != 0) return subscribeFailure_;
    }
    return subscribers_.Add(subscriber);
}

int32_t UserManager::Unsubscribe(IEvents* subscriber) { return subscribers_.Remove(subscriber); }

std::vector<UserManager::UserInfo>::iterator UserManager::FindLocked(const std::wstring& sid) {
    for (auto it = users_.begin(); it != users_.end(); ++it)
        if (SameSid(it->sid, sid)) return it;
    return users_.end();
}

int32_t UserManager::LogOn(const UserInfo& user) {
    if (user.sid.empty()) return qv::status::kInvalidParameter;
    auto turn = subscribers_.TakeTurn();
    {
        std::lock_guard lock(mutex_);
        if (FindLocked(user.sid) != users_.end()) return qv::status::kAlreadyExists;
        users_.push_back(user);
    }
    // The subscribers' statuses are only the host's to record; none is kept.
    turn.Deliver([&](IEvents* s) { static_cast<void>(s->OnUserLoggedOn(user)); });
    return 0;
}

std::optional<UserManager::UserInfo> UserManager::Record(const std::wstring& sid, Then then) {
    std::lock_guard lock(mutex_);
    auto found = FindLocked(sid);
    if (found == users_.end()) return std::nullopt;
    UserInfo user = *found;
    if (then == Then::kLogOff) users_.erase(found);
    return user;
}

int32_t UserManager::LogOff(const std::wstring& sid) {
    auto turn = subscribers_.TakeTurn();
    const std::optional<UserInfo> user = Record(sid, Then::kLogOff);
    if (!user) return qv::status::kNotFound;
    turn.Deliver([&](IEvents* s) { static_cast<void>(s->OnUserLoggedOff(*user)); });
    return 0;
}

int32_t UserManager::Lock(const std::wstring& sid, bool locked) {
    auto turn = subscribers_.TakeTurn();
    const std::optional<UserInfo> user = Record(sid, Then::kKeep);
    if (!user) return qv::status::kNotFound;
    turn.Deliver([&](IEvents* s) {
        static_cast<void>(locked ? s->OnUserSessionLocked(*user) : s->OnUserSessionUnlocked(*user));
    });
    return 0;
}

void UserManager::FailGetLoggedUsers(int32_t status) {
    std::lock_guard lock(mutex_);
    getFailure_ = status;
}

void UserManager::FailSubscribe(int32_t status) {
    std::lock_guard lock(mutex_);
    subscribeFailure_ = status;
}

void UserManager::DuringNextRead(std::function<void()> action) {
    std::lock_guard lock(mutex_);
    duringNextRead_ = std::move(action);
}

size_t UserManager::SubscriberCount() const { return subscribers_.size(); }

}  // namespace host
