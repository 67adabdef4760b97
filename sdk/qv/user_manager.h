#pragma once
// The host's user manager ("Product.UserManager"): the users logged on to the
// machine and their directory identity, with reports of every log-on and
// log-off.
#include <cstdint>
#include <string>
#include <vector>

#include "qv/base_interface.h"

namespace Product::UserManager {

// One group the user belongs to.
struct MemberOf {
    std::wstring sid;  // the group's SID in string form
    std::wstring dn;   // the group's distinguished name; may be empty
};

// A logged-on user as the host knows it.
struct UserInfo {
    std::wstring sid;     // the user's SID in string form
    std::wstring name;    // the account name, without the domain
    std::wstring domain;  // the account's domain (DNS form)
    std::vector<MemberOf> memberOf;
};

struct IUserManager : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"Product.UserManager";
    // The identifier as the host writes it, and its value.
    static constexpr const wchar_t* iidText = L"{7B045FC4-1F00-4FD2-BBAA-4788DDFB0E44}";
    static constexpr GUID iid = qv::MakeGuid(0x7B045FC4, 0x1F00, 0x4FD2, 0xBBAA, 0x4788DDFB0E44);

    // Receives the user reports, on a thread of the host's choice. Each
    // returns a status that the host only records.
    struct IEvents {
        virtual int32_t OnUserLoggedOn(const UserInfo& user) = 0;
        virtual int32_t OnUserLoggedOff(const UserInfo& user) = 0;
        // The user's session was locked or unlocked; the user stays logged on.
        virtual int32_t OnUserSessionLocked(const UserInfo& user) = 0;
        virtual int32_t OnUserSessionUnlocked(const UserInfo& user) = 0;

    protected:
        ~IEvents() = default;
    };

    // The users logged on now, replacing `*users`. 0, kInvalidParameter for null.
    [[nodiscard]] virtual int32_t GetLoggedUsers(std::vector<UserInfo>* users) = 0;
    // 0; kFunctionFailed when already subscribed; kInvalidParameter for null.
    [[nodiscard]] virtual int32_t Subscribe(IEvents* subscriber) = 0;
    // 0; kFunctionFailed when not subscribed. Once this returns the subscriber
    // is not called any more (a report being delivered to it has finished).
    [[nodiscard]] virtual int32_t Unsubscribe(IEvents* subscriber) = 0;

protected:
    ~IUserManager() = default;
};

}  // namespace Product::UserManager
