#pragma once
// The host's computer manager ("Product.ComputerManager"): the directory
// identity of the machine itself (the groups its account belongs to and its
// account's DN, which places it in an organisational unit), with reports of
// every change.
#include <cstdint>
#include <string>
#include <vector>

#include "qv/base_interface.h"

namespace Product::ComputerManager {

// One group the computer's account belongs to.
struct ComputerGroup {
    std::wstring dn;   // the group's distinguished name
    std::wstring sid;  // the group's SID in string form
};

struct IComputerManager : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"Product.ComputerManager";
    // The identifier as the host writes it. Its first group has nine digits;
    // read as a number and narrowed to 32 bits it gives 0x472AB675, the value
    // the host uses.
    static constexpr const wchar_t* iidText = L"{8472AB675-1A10-DF74-CCDE-9571AABB94D3}";
    static constexpr GUID iid = qv::MakeGuid(0x472AB675, 0x1A10, 0xDF74, 0xCCDE, 0x9571AABB94D3);

    // Receives the change reports, on a thread of the host's choice. A report
    // carries the whole new value, also when it equals the previous one.
    struct IEvents {
        virtual int32_t OnComputerGroupsChanged(const std::vector<ComputerGroup>& groups) = 0;
        // `ou`: the computer account's DN, as GetComputerOrganisationalUnit.
        virtual int32_t OnComputerOrganisationalUnitsChanged(const std::wstring& ou) = 0;

    protected:
        ~IEvents() = default;
    };

    // The computer's groups now, replacing `*groups`. 0 or the reason they
    // cannot be read; kInvalidParameter for null.
    [[nodiscard]] virtual int32_t GetComputerGroups(std::vector<ComputerGroup>* groups) = 0;
    // The DN of the computer's own account (CN=PC1,OU=Servers,DC=corp,...),
    // which places it in its organisational unit: the OU is the DN without
    // its first RDN. 0 or the reason it cannot be read; kInvalidParameter for
    // null.
    [[nodiscard]] virtual int32_t GetComputerOrganisationalUnit(std::wstring* ou) = 0;
    // 0; kFunctionFailed when already registered; kInvalidParameter for null.
    [[nodiscard]] virtual int32_t RegisterEvents(IEvents* subscriber) = 0;
    // 0; kFunctionFailed when not registered. Once this returns the
    // subscriber is not called any more.
    [[nodiscard]] virtual int32_t UnregisterEvents(IEvents* subscriber) = 0;

protected:
    ~IComputerManager() = default;
};

}  // namespace Product::ComputerManager
