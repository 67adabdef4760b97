#include "host/agent_client_notifications.h"

namespace host {

void* AgentClientNotifications::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, IOvraClientWithNotifications::iid))
        return static_cast<IOvraClientWithNotifications*>(this);
    return nullptr;
}

std::optional<bool> AgentClientNotifications::GetEcsConnectionState() {
    std::lock_guard lock(mutex_);
    return state_;
}

int32_t AgentClientNotifications::RegisterEcsNotifications(IEcsNotifications* subscriber) {
    std::lock_guard lock(mutex_);
    return subscribers_.Add(subscriber);
}

int32_t AgentClientNotifications::UnregisterEcsNotifications(IEcsNotifications* subscriber) {
    std::lock_guard lock(mutex_);
    return subscribers_.Remove(subscriber);
}

size_t AgentClientNotifications::SetConnectionState(std::optional<bool> state) {
    std::lock_guard lock(mutex_);
    state_ = state;
    return DeliverLocked(state);
}

size_t AgentClientNotifications::Report() {
    std::lock_guard lock(mutex_);
    return DeliverLocked(state_);
}

size_t AgentClientNotifications::SubscriberCount() const {
    std::lock_guard lock(mutex_);
    return subscribers_.size();
}

size_t AgentClientNotifications::DeliverLocked(std::optional<bool> state) {
    return subscribers_.ForEachStillSubscribed([&](IEcsNotifications* s) { s->OnEcsConnected(state); });
}

}  // namespace host
