#pragma once
// The reference host's user manager ("Product.UserManager"): the users logged
// on, as the host program or a test logs them on and off by hand, reported
// to every subscriber.
//
// Thread rule: every operation may be called from any thread. A report is
// delivered on the thread that logs the user on or off, to each subscriber in
// subscription order, outside the manager's lock: reports are delivered one
// after the other, and once Unsubscribe returns the subscriber is not called
// again. A subscriber may read the users, (un)subscribe, or log users on and
// off from inside its callback (host/subscriber_list.h says what else).
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/subscriber_list.h"

#include "qv/user_manager.h"

namespace host {

class UserManager final : public Product::UserManager::IUserManager {
public:
    using UserInfo = Product::UserManager::UserInfo;
    static constexpr const wchar_t* kName = IUserManager::kPluginName;

    UserManager() = default;
    UserManager(const UserManager&) = delete;
    UserManager& operator=(const UserManager&) = delete;

    void* QueryInterface(const GUID& iid) override;
    // The users in log-on order; the status set by FailGetLoggedUsers, if any.
    int32_t GetLoggedUsers(std::vector<UserInfo>* users) override;
    int32_t Subscribe(IEvents* subscriber) override;
    int32_t Unsubscribe(IEvents* subscriber) override;

    // Logs `user` on and reports it. kInvalidParameter for an empty SID;
    // kAlreadyExists when a user with that SID (ignoring case) is logged on.
    int32_t LogOn(const UserInfo& user);
    // Logs the user `sid` (ignoring case) off and reports the record it was
    // logged on with. kNotFound when no such user is logged on.
    int32_t LogOff(const std::wstring& sid);
    // Reports a session lock or unlock of the logged-on user `sid`; kNotFound
    // when no such user is logged on.
    int32_t Lock(const std::wstring& sid, bool locked);
    // Makes GetLoggedUsers fail with `status` (0: succeed again).
    void FailGetLoggedUsers(int32_t status);
    // Makes Subscribe refuse with `status` (0: accept again).
    void FailSubscribe(int32_t status);
    // Runs `action` once, inside the next GetLoggedUsers after it has taken
    // its copy of the users: a log-on or log-off that `action` makes is
    // reported while the reader still holds the older list.
    void DuringNextRead(std::function<void()> action);

    size_t SubscriberCount() const;

private:
    std::vector<UserInfo>::iterator FindLocked(const std::wstring& sid);
    // A copy of the record of the logged-on user `sid` (ignoring case), which
    // kLogOff also removes; nullopt when no such user is logged on.
    enum class Then { kKeep, kLogOff };
    std::optional<UserInfo> Record(const std::wstring& sid, Then then);

    mutable std::mutex mutex_;  // guards the members below but the subscribers
    std::vector<UserInfo> users_;
    int32_t getFailure_ = 0;
    int32_t subscribeFailure_ = 0;
    std::function<void()> duringNextRead_;
    SubscriberList<IEvents> subscribers_;
};

}  // namespace host
