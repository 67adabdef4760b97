#pragma once
// The host's user manager ("Product.UserManager"): the users logged on to the
// machine and their directory identity. Only its identity is declared here;
// its operations are added by the conditions that use them.
#include "qv/base_interface.h"

namespace Product::UserManager {

struct IUserManager : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"Product.UserManager";
    // The identifier as the host writes it, and its value.
    static constexpr const wchar_t* iidText = L"{7B045FC4-1F00-4FD2-BBAA-4788DDFB0E44}";
    static constexpr GUID iid = qv::MakeGuid(0x7B045FC4, 0x1F00, 0x4FD2, 0xBBAA, 0x4788DDFB0E44);

protected:
    ~IUserManager() = default;
};

}  // namespace Product::UserManager
