#pragma once
// The host's computer manager ("Product.ComputerManager"): the directory
// identity of the machine itself. Only its identity is declared here; its
// operations are added by the conditions that use them.
#include "qv/base_interface.h"

namespace Product::ComputerManager {

struct IComputerManager : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"Product.ComputerManager";
    // The identifier as the host writes it. Its first group has nine digits;
    // read as a number and narrowed to 32 bits it gives 0x472AB675, the value
    // the host uses.
    static constexpr const wchar_t* iidText = L"{8472AB675-1A10-DF74-CCDE-9571AABB94D3}";
    static constexpr GUID iid = qv::MakeGuid(0x472AB675, 0x1A10, 0xDF74, 0xCCDE, 0x9571AABB94D3);

protected:
    ~IComputerManager() = default;
};

}  // namespace Product::ComputerManager
