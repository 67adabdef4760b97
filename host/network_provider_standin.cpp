#include "host/network_provider_standin.h"

#include "qv/status.h"

namespace host {

void* NetworkProviderStandIn::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, INetworkProvider::iid))
        return static_cast<INetworkProvider*>(this);
    return nullptr;
}

int32_t NetworkProviderStandIn::Start() {
    std::lock_guard lock(mutex_);
    ++starts_;
    return 0;
}

int32_t NetworkProviderStandIn::Stop() {
    std::lock_guard lock(mutex_);
    if (starts_ == 0) return qv::status::kFunctionFailed;
    --starts_;
    return 0;
}

int32_t NetworkProviderStandIn::GetState(Product::Integration::NetworkState& out) {
    std::lock_guard lock(mutex_);
    out = state_;
    return 0;
}

void NetworkProviderStandIn::SetState(const Product::Integration::NetworkState& state) {
    std::lock_guard lock(mutex_);
    state_ = state;
}

int32_t NetworkProviderStandIn::Subscribe(IEvents* subscriber) { return subscribers_.Add(subscriber); }

int32_t NetworkProviderStandIn::Unsubscribe(IEvents* subscriber) { return subscribers_.Remove(subscriber); }

size_t NetworkProviderStandIn::NotifySubscribers() {
    // A provider only tells; what a subscriber makes of the news is its own.
    return subscribers_.Notify([](IEvents* s) { static_cast<void>(s->OnNetworkStateChanged()); });
}

size_t NetworkProviderStandIn::SubscriberCount() const { return subscribers_.size(); }

int NetworkProviderStandIn::StartCount() const {
    std::lock_guard lock(mutex_);
    return starts_;
}

}  // namespace host
