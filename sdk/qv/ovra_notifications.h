#pragma once
// The agent's client notifications ("Ovra.Client.Notifications"): whether the
// endpoint agent is connected to its management server, and reports of every
// change of that connection.
#include <cstdint>
#include <optional>

#include "qv/base_interface.h"

namespace Endpoint::Ovra::Notifications {

// Receives connection reports.
struct IEcsNotifications {
    // The connection is now `connected`; empty when its state is unknown.
    // Reports may repeat a value; they come on a thread of the host's choice.
    virtual void OnEcsConnected(std::optional<bool> connected) = 0;

protected:
    ~IEcsNotifications() = default;
};

struct IOvraClientWithNotifications : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"Ovra.Client.Notifications";
    static constexpr GUID iid = qv::MakeGuid(0x3C1D5E27, 0x6A4B, 0x4F8E, 0x9D21, 0x7B5C0A94E3F6);

    // The current connection state; empty when unknown.
    virtual std::optional<bool> GetEcsConnectionState() = 0;
    // Adds a subscriber: 0, or kFunctionFailed when it is already registered.
    [[nodiscard]] virtual int32_t RegisterEcsNotifications(IEcsNotifications* subscriber) = 0;
    // Removes a subscriber: 0, or kFunctionFailed when it was not registered. Once this
    // returns, the subscriber is not called any more (a report being delivered
    // to it on another thread has finished).
    [[nodiscard]] virtual int32_t UnregisterEcsNotifications(IEcsNotifications* subscriber) = 0;

protected:
    ~IOvraClientWithNotifications() = default;
};

}  // namespace Endpoint::Ovra::Notifications
