#pragma once
// "network.canResolveHost": true while the host name "data"."address"
// resolves through DNS (an A record, or failing that an AAAA record, asked
// of the servers directly, past any cache).
//
// The name is resolved when the condition starts, on every change the
// network provider reports (the state itself is not read), on every pass of
// the condition's own thread (every 60 s), and on a value request that asks
// for recomputation. A pass or a provider change notifies the subscribers
// when the result differs from the last one.
//
// Thread rules: three threads meet here: the engine (value requests), the
// provider's listener thread (changes) and the condition's timer thread.
// Passes (timer, provider change) run one at a time; the last result, which
// value requests read too, is guarded by a spin flag. A resolution stores
// its answer only if no resolution that started after it stored first
// (LatestValue): a value request whose query was slow cannot overwrite the
// answer of a pass that began later and has been notified. Resolution blocks
// the calling thread for as long as DNS takes, the provider's listener thread
// included. Uninit stops and joins the timer thread first, then unsubscribes
// from the provider (which waits for a notification in progress) and
// releases its start; it must not run on either of those threads.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/network/latest_value.h"
#include "conditions/network/pass_timer.h"
#include "network/network_provider_interface.h"

namespace Product::Integration::ConditionManager {

class ConditionCanResolveHost : public ConditionBaseWithDepends<ConditionBase, INetworkProvider>,
                                public INetworkProvider::IEvents {
public:
    static constexpr const wchar_t* kType = L"network.canResolveHost";
    static constexpr uint32_t kPeriodSeconds = 60;

    // Whether a name resolves; the default asks DNS for A, then AAAA.
    using Resolver = std::function<bool(const std::wstring& name)>;
    static bool ResolveByDns(const std::wstring& name);

    ConditionCanResolveHost();
    // Tests give their own timer and resolver.
    ConditionCanResolveHost(PassTimerFactory timers, Resolver resolver);
    ~ConditionCanResolveHost() override;

    // Reads "address" (kInvalidParameter), needs a provider
    // (kDependencyNotFound, "cannot found network provider") and its Start
    // (the provider's status, "failed to acquire network provider"); then resolves once for the first value and starts
    // the timer thread (kFunctionFailed when it cannot start).
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Stops and joins the timer thread, then unsubscribes from the provider
    // and releases its start. Idempotent; safe after a failed Init.
    void Uninit() override;
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    [[nodiscard]] int32_t OnNetworkStateChanged() override;

private:
    // Resolves again and notifies when the stored result changed.
    int32_t Pass();
    bool Resolve() const;
    bool ReadResult();
    // Under the spin flag: offers the answer of the resolution holding `ticket`.
    // True when the stored value changed.
    bool StoreResult(uint64_t ticket, bool value);
    void StopTimer();

    PassTimerFactory timers_;
    Resolver resolver_;
    std::wstring hostName_;
    uint32_t periodSeconds_ = kPeriodSeconds;
    std::unique_ptr<PassTimer> timer_;
    std::thread thread_;
    std::mutex passLock_;           // one pass at a time, so each flip is notified once
    std::atomic<int32_t> spin_{0};  // 1 while a thread reads or writes result_
    LatestValue result_;
    bool started_ = false;
    bool subscribed_ = false;
};

}  // namespace Product::Integration::ConditionManager
