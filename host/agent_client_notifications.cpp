#include "host/agent_client_notifications.h"

#include <algorithm>

namespace host {
namespace {
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kFunctionFailed = 1627;
}  // namespace

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
    if (!subscriber) return kInvalidParameter;
    std::lock_guard lock(mutex_);
    if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end()) return kFunctionFailed;
    subscribers_.push_back(subscriber);
    return 0;
}

int32_t AgentClientNotifications::UnregisterEcsNotifications(IEcsNotifications* subscriber) {
    std::lock_guard lock(mutex_);
    auto it = std::find(subscribers_.begin(), subscribers_.end(), subscriber);
    if (it == subscribers_.end()) return kFunctionFailed;
    subscribers_.erase(it);
    return 0;
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
    // Walks a copy, so that a subscriber may (un)register while called; one
    // that left meanwhile is skipped.
    const std::vector<IEcsNotifications*> subscribers = subscribers_;
    size_t called = 0;
    for (IEcsNotifications* subscriber : subscribers) {
        if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) == subscribers_.end()) continue;
        subscriber->OnEcsConnected(state);
        ++called;
    }
    return called;
}

}  // namespace host
