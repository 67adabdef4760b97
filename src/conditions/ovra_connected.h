#pragma once
// "qv.isOvraConnected": true while the agent's connection to its server is in
// the wanted state ("data"."connected": true for connected, false for not
// connected). Connection reports flap, so changes are debounced: each report
// restarts a 20-second wait (a delayed item on the condition's own queue,
// "Cond.IsOvraConn", superseded through a generation counter), and only the
// last report of a burst is delivered, 20 seconds after it. A delivery is
// made even when it repeats the value delivered before.
//
// GetState is deliberately asymmetric: without `recompute` it gives the value
// last delivered, with `recompute` the value of the latest report.
//
// Init registers for reports before it reads the current state, so that no
// report is lost between the two; a report during the read stays pending.
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "conditions/condition_base.h"
#include "conditions/condition_queue.h"
#include "os/thread_annotations.h"
#include "qv/ovra_notifications.h"

namespace Product::Integration::ConditionManager {

// Thread rules: OnEcsConnected runs on the host's notification thread,
// DoNotify on the condition's queue thread; `lock_` serialises them, and the
// subscribers are called on the queue thread with it held. GetState reads
// atomics only. Uninit unregisters from the client, then closes the queue
// (waiting for a delivery in progress). Nothing thrown leaves OnEcsConnected.
class ConditionisOvraConnected final
    : public ConditionBaseWithDepends<ConditionBase, Endpoint::Ovra::Notifications::IOvraClientWithNotifications,
                                      EvQueueWithName>,
      public Endpoint::Ovra::Notifications::IEcsNotifications {
public:
    static constexpr const wchar_t* kType = L"qv.isOvraConnected";
    static constexpr const wchar_t* kQueueName = L"Cond.IsOvraConn";
    static constexpr uint32_t kQuietPeriodMs = 20000;

    ~ConditionisOvraConnected() override;

    // kDependencyNotFound without the agent client (or without a queue); kInvalidParameter when
    // "connected" is absent or not a boolean; the client's status when it
    // refuses the registration. The initial state comes from the client's
    // current state (unknown counts as not connected) and is not notified.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Unregisters from the client and closes the queue. Idempotent.
    void Uninit() override;
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    void OnEcsConnected(std::optional<bool> connected) override;
    // {"connected": the last report (true, false or null: unknown),
    //  "state": the value delivered, and while a report waits out its quiet
    //  period "pendingState" and "quietEndsInMs"}
    [[nodiscard]] Json::Value Observed() override;

private:
    bool StateFor(std::optional<bool> connected) const noexcept;
    void DoNotify(uint64_t expectedGeneration);

    bool wantConnected_ = true;
    std::atomic<bool> deliveredState_{false};
    std::atomic<bool> pendingState_{false};
    os::Mutex lock_;
    uint64_t generation_ CR_GUARDED_BY(lock_) = 0;
    std::optional<bool> lastReport_ CR_GUARDED_BY(lock_);
    bool deliveryPending_ CR_GUARDED_BY(lock_) = false;
    uint32_t pendingSinceTick_ CR_GUARDED_BY(lock_) = 0;  // os::TickMs() of the report waiting
};

}  // namespace Product::Integration::ConditionManager
