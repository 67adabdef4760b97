#pragma once
// Stand-in network provider for the reference host, registered under
// "Product.ConditionalRunner.NetworkProvider" so that the condition manager,
// which requires a provider to start, can run before the module's own provider
// exists. It watches nothing: its state is the empty record until a test sets
// one with SetState, and it notifies only when a test calls
// NotifySubscribers. Its bookkeeping is real:
// counted start and stop, and a subscriber list with the interface's statuses.
// Once the module exports its own provider, hosts register that one instead.
//
// Thread rule: every operation may be called from any thread. Notifications
// run on the caller of NotifySubscribers, outside the lock of the state, one
// after the other; Unsubscribe waits for a notification in progress to that
// subscriber (host/subscriber_list.h says what a subscriber may do).
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "host/subscriber_list.h"

#include "network/network_provider_interface.h"

namespace host {

class NetworkProviderStandIn final : public Product::Integration::INetworkProvider {
public:
    static constexpr const wchar_t* kName = INetworkProvider::kPluginName;

    NetworkProviderStandIn() = default;
    ~NetworkProviderStandIn() = default;
    NetworkProviderStandIn(const NetworkProviderStandIn&) = delete;
    NetworkProviderStandIn& operator=(const NetworkProviderStandIn&) = delete;

    void* QueryInterface(const GUID& iid) override;
    int32_t Start() override;
    // kFunctionFailed when there is no Start to balance.
    int32_t Stop() override;
    // Copies the state last set (the empty record at first).
    int32_t GetState(Product::Integration::NetworkState& out) override;
    // Replaces the state that GetState gives; notifies nobody.
    void SetState(const Product::Integration::NetworkState& state);
    // 0; kFunctionFailed when already subscribed; kInvalidParameter for null.
    int32_t Subscribe(IEvents* subscriber) override;
    int32_t Unsubscribe(IEvents* subscriber) override;

    // Calls every subscriber's change notification in subscription order on
    // the calling thread; returns the number called.
    size_t NotifySubscribers();
    size_t SubscriberCount() const;
    int StartCount() const;

private:
    mutable std::mutex mutex_;  // the state and the start count
    SubscriberList<IEvents> subscribers_;
    int starts_ = 0;
    Product::Integration::NetworkState state_;
};

}  // namespace host
