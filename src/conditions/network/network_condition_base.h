#pragma once
// Common base of the "network." conditions that read the network provider's
// state: it starts the provider while the condition lives, subscribes to its
// changes, and recomputes the cached value from a copy of the state on every
// change, notifying the subscribers when the value flipped.
//
// A derived condition's Init calls ConditionNetworkBase::Init first (type
// keyword, provider present and started), then reads its own "data", then
// Attach(), which subscribes and computes the first value without notifying.
// Subscribing only once the parameters are read means no change notification
// can meet a half-initialised condition.
//
// Thread rules: change notifications arrive on the provider's listener thread
// while the engine may ask for the value on its own; the cached value is
// guarded by the condition's lock, and Compute must only read the
// parameters, which are fixed once Init returned. A computation stores its
// value only if no computation that read the state after it stored first
// (LatestValue), so a recomputation that read the state before a change
// cannot overwrite the value of the notification pass that followed it. Subscribers are notified on
// the listener thread without the lock held. Uninit (the owner's thread)
// unsubscribes first, which waits for a notification in progress, then
// releases the provider start.
#include <cstdint>
#include <mutex>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/network/latest_value.h"
#include "network/network_provider_interface.h"

namespace Product::Integration::ConditionManager {

class ConditionNetworkBase : public ConditionBaseWithDepends<ConditionBase, INetworkProvider>,
                             public INetworkProvider::IEvents {
public:
    ~ConditionNetworkBase() override = default;

    // kDependencyNotFound without a provider or when it does not start
    // ("network provider not found" / "failed to acquire network provider").
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Unsubscribes, releases the provider start and drops the provider.
    // Idempotent; safe after a failed Init.
    void Uninit() override;
    // With `recompute`: a fresh value from the provider's state (cached, not
    // notified); otherwise the cached value. kInvalidParameter for null.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    // Recomputes and notifies the subscribers when the value flipped; returns
    // their status (0 when nothing flipped or a newer value was stored first).
    [[nodiscard]] int32_t OnNetworkStateChanged() override;
    // What the condition compares in the provider's current state (read
    // afresh) and which entry matched; null without a provider.
    [[nodiscard]] Json::Value Observed() override;

protected:
    // The condition's value over one state; called with no lock held.
    virtual bool Compute(const NetworkState& state) const = 0;
    // The fields of `state` that Compute reads and the entry that matched
    // ("matched": null when none), as a JSON object.
    virtual Json::Value Describe(const NetworkState& state) const = 0;
    // Subscribes to the provider and computes the first value; 0, or the
    // provider's status.
    [[nodiscard]] int32_t Attach();

private:
    enum class Notify : bool { kNo, kYes };
    [[nodiscard]] int32_t Recompute(Notify notify);

    std::mutex lock_;  // guards the stored part of cached_
    LatestValue cached_;
    bool started_ = false;     // the provider was started by Init
    bool subscribed_ = false;  // Attach subscribed
};

}  // namespace Product::Integration::ConditionManager
