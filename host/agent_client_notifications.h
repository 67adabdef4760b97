#pragma once
// The reference host's agent client notifications ("Ovra.Client.Notifications"):
// a connection state that the host program or a test sets by hand, reported to
// every registered subscriber.
//
// Thread rule: every operation may be called from any thread. A report is
// delivered on the thread that calls SetConnectionState or Report, to each
// subscriber in registration order, outside the lock of the state: concurrent
// reports are delivered one after the other, and once Unregister returns the
// subscriber is not called again. A subscriber may read or set the state,
// register or unregister from inside its callback (host/subscriber_list.h says
// what else).
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "host/subscriber_list.h"

#include "qv/ovra_notifications.h"

namespace host {

class AgentClientNotifications final : public Endpoint::Ovra::Notifications::IOvraClientWithNotifications {
public:
    using IEcsNotifications = Endpoint::Ovra::Notifications::IEcsNotifications;
    static constexpr const wchar_t* kName = IOvraClientWithNotifications::kPluginName;

    // Starts with `initial` (unknown by default) and no subscribers.
    explicit AgentClientNotifications(std::optional<bool> initial = std::nullopt) : state_(initial) {}
    AgentClientNotifications(const AgentClientNotifications&) = delete;
    AgentClientNotifications& operator=(const AgentClientNotifications&) = delete;

    void* QueryInterface(const GUID& iid) override;
    std::optional<bool> GetEcsConnectionState() override;
    // 0; kFunctionFailed when already registered; kInvalidParameter for null.
    int32_t RegisterEcsNotifications(IEcsNotifications* subscriber) override;
    int32_t UnregisterEcsNotifications(IEcsNotifications* subscriber) override;

    // Sets the state and reports it to every subscriber, also when it did not
    // change (the agent's reports repeat values too). Returns the number of
    // subscribers called.
    size_t SetConnectionState(std::optional<bool> state);
    // Reports the current state again without changing it.
    size_t Report();

    size_t SubscriberCount() const;

private:
    mutable std::mutex mutex_;  // the state
    std::optional<bool> state_;
    SubscriberList<IEcsNotifications> subscribers_;
};

}  // namespace host
