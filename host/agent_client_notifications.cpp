#include "host/agent_client_notifications.h"

namespace host {

void* AgentClientNotifications::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) ||
        qv::GuidEquals(requested, IOvraClientWithNotifications::iid))
        return static_cast<IOvraClientWithNotifications*>(this);
    return nullptr;
}

std::optional<bool> AgentClientNotifications::GetEcsConnectionState() {
    std::lock_guard lock(mutex_);
    return state_;
}

int32_t AgentClientNotifications::RegisterEcsNotifications(IEcsNotifications* subscriber) {
    return subscribers_.Add(subscriber);
}

int32_t AgentClientNotifications::UnregisterEcsNotifications(IEcsNotifications* subscriber) {
    return subscribers_.Remove(subscriber);
}

size_t AgentClientNotifications::SetConnectionState(std::optional<bool> state) {
    auto turn = subscribers_.TakeTurn();
    {
        std::lock_guard lock(mutex_);
        state_ = state;
    }
    return turn.Deliver([&](IEcsNotifications* s) { s->OnEcsConnected(state); });
}

size_t AgentClientNotifications::Report() {
    auto turn = subscribers_.TakeTurn();
    const std::optional<bool> state = GetEcsConnectionState();
    return turn.Deliver([&](IEcsNotifications* s) { s->OnEcsConnected(state); });
}

size_t AgentClientNotifications::SubscriberCount() const { return subscribers_.size(); }

}  // namespace host
