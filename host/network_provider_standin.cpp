#include "host/network_provider_standin.h"

#include <algorithm>

namespace host {
namespace {
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kFunctionFailed = 1627;
}  // namespace

void* NetworkProviderStandIn::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, INetworkProvider::iid))
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
    if (starts_ == 0) return kFunctionFailed;
    --starts_;
    return 0;
}

int32_t NetworkProviderStandIn::GetState(Product::Integration::NetworkState&) { return 0; }

int32_t NetworkProviderStandIn::Subscribe(IEvents* subscriber) {
    std::lock_guard lock(mutex_);
    if (!subscriber) return kInvalidParameter;
    if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end()) return kFunctionFailed;
    subscribers_.push_back(subscriber);
    return 0;
}

int32_t NetworkProviderStandIn::Unsubscribe(IEvents* subscriber) {
    std::lock_guard lock(mutex_);
    auto it = std::find(subscribers_.begin(), subscribers_.end(), subscriber);
    if (it == subscribers_.end()) return kFunctionFailed;
    subscribers_.erase(it);
    return 0;
}

size_t NetworkProviderStandIn::NotifySubscribers() {
    std::lock_guard lock(mutex_);
    // Walks a copy, so that a subscriber may leave (on this thread) while
    // notified; one that left is skipped.
    const std::vector<IEvents*> subscribers = subscribers_;
    size_t called = 0;
    for (IEvents* subscriber : subscribers) {
        if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) == subscribers_.end()) continue;
        subscriber->OnNetworkStateChanged();
        ++called;
    }
    return called;
}

size_t NetworkProviderStandIn::SubscriberCount() const {
    std::lock_guard lock(mutex_);
    return subscribers_.size();
}

int NetworkProviderStandIn::StartCount() const {
    std::lock_guard lock(mutex_);
    return starts_;
}

}  // namespace host
