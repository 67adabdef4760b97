#pragma once
// Plug-in groups ("Framework.Manager") and the service-control members of a
// group: plug-ins that tell registered sinks about the service's connection.
#include <cstdint>
#include <vector>

#include "qv/base_interface.h"

namespace EndpointService {

// Connection events of the service.
enum ConnectionEvent : int32_t {
    kServiceConnected = 0,
};

// A service-control endpoint. Sinks implement OnConnectionEvent; a group
// member also accepts sinks. Events come on a thread of the host's choice.
struct IControl : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x9B3E5A17, 0xC2D8, 0x4F60, 0xB471, 0x58E2A9C03D6B);

    // Told of a connection event (a ConnectionEvent value; others may come).
    virtual void OnConnectionEvent(int32_t event) = 0;
    // Adds `sink` to those told of events: 0, kAlreadyExists when present,
    // kInvalidParameter for null; kNotSupported from a pure sink.
    [[nodiscard]] virtual int32_t RegisterControl(IControl* sink) = 0;
    // Removes `sink`: 0, or kNotFound when absent. Once this returns the sink
    // is not called any more.
    [[nodiscard]] virtual int32_t UnregisterControl(IControl* sink) = 0;

protected:
    ~IControl() = default;
};

}  // namespace EndpointService

namespace Framework {

struct IGroupsManager : IQvBaseInterface {
    static constexpr const wchar_t* kPluginName = L"Framework.Manager";
    static constexpr GUID iid = qv::MakeGuid(0x47C0D83A, 0x1E9F, 0x4B25, 0x9A6C, 0xE31F50B7286D);

    // The members of the plug-in group `group` that implement `iid`, in the
    // group's order, each with a reference taken: 0 (an empty list when none
    // implements it), kNotFound for an unknown group.
    [[nodiscard]] virtual int32_t GetGroupMembers(const wchar_t* group, const GUID& iid,
                                                  std::vector<void*>& members) = 0;
    // Gives back the references one GetGroupMembers of `group` took.
    virtual void ReleaseGroupMembers(const wchar_t* group) = 0;

protected:
    ~IGroupsManager() = default;
};

}  // namespace Framework
