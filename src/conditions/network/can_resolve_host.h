#pragma once
// "network.canResolveHost": true while the host name "data"."address"
// resolves through DNS (an A record, or failing that an AAAA record, asked
// of the servers directly, past any cache).
//
// The questions are asked by the process's shared resolver (SharedResolver),
// never on a caller's thread: when the condition starts, every 60 s, on every
// change the network provider reports (the state itself is not read) and on
// a value request that asks for recomputation. Each answer that differs from
// the stored value is stored and notified, once per flip. Until the first
// answer arrives the value is false. A recomputation returns the stored
// value at once; its answer, when it differs, is notified like any other.
// This departs on purpose from a timer thread per condition that resolves
// while the caller waits: see shared_resolver.h for why.
//
// Thread rules: Init and Uninit on the owner's thread; GetState on the
// engine's threads; OnNetworkStateChanged on the provider's listener thread;
// OnResolved on a resolver thread (answers come one at a time). None of them
// waits for DNS. The stored value is guarded by a mutex; notifications are
// sent without it. Uninit leaves the resolver first (which waits for an
// answer being delivered to this condition, unless called from inside that
// delivery), then unsubscribes from the provider (which waits for a
// notification in progress) and releases its start; it must not run on the
// provider's listener thread.
#include <cstdint>
#include <optional>
#include <string>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/network/shared_resolver.h"
#include "network/network_provider_interface.h"
#include "os/thread_annotations.h"

namespace Product::Integration::ConditionManager {

class ConditionCanResolveHost : public ConditionBaseWithDepends<ConditionBase, INetworkProvider>,
                                public INetworkProvider::IEvents,
                                private SharedResolver::Subscriber {
public:
    static constexpr const wchar_t* kType = L"network.canResolveHost";

    // Asks through the process's shared resolver.
    ConditionCanResolveHost();
    // Tests give their own resolver (its resolve function, period, threads).
    explicit ConditionCanResolveHost(SharedResolver& resolver);
    ~ConditionCanResolveHost() override;

    // Reads "address" (kInvalidParameter), needs a provider
    // (kDependencyNotFound, "cannot found network provider") and its Start
    // (the provider's status, "failed to acquire network provider"); then
    // subscribes to the resolver, which asks the name (kFunctionFailed when it
    // has no thread to ask with). Returns without waiting for the answer.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Leaves the resolver (an answer still on its way is dropped), then
    // unsubscribes from the provider and releases its start. Never waits for
    // DNS. Idempotent; safe after a failed Init.
    void Uninit() override;
    // The stored value; with `recompute` also asks the name again.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    // Asks the name again and returns at once.
    [[nodiscard]] int32_t OnNetworkStateChanged() override;
    // {"name": the host name, "resolves": the value, "answeredBy": "A",
    //  "AAAA" or "none", "askedAt": when the last answer's question was
    //  asked} ("answeredBy" and "askedAt" null before the first answer)
    [[nodiscard]] Json::Value Observed() override;

private:
    void OnResolved(const SharedResolver::Resolution& resolution) override;

    SharedResolver& resolver_;
    std::wstring hostName_;
    os::Mutex mutex_;
    bool value_ CR_GUARDED_BY(mutex_) = false;
    std::optional<SharedResolver::Resolution> last_ CR_GUARDED_BY(mutex_);  // the last answer
    bool started_ = false;
    bool subscribed_ = false;
    bool asking_ = false;  // subscribed to the resolver
};

}  // namespace Product::Integration::ConditionManager
