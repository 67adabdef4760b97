#include "conditions/ovra_connected.h"

#include "conditions/guarded_callback.h"
#include "model/json_composed_serializer.h"
#include "os/clock.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionisOvraConnected::Init";
constexpr const wchar_t* kOnEcsConnected =
    L"Product::Integration::ConditionManager::ConditionisOvraConnected::OnEcsConnected";
constexpr const wchar_t* kDoNotify = L"Product::Integration::ConditionManager::ConditionisOvraConnected::DoNotify";
using Client = Endpoint::Ovra::Notifications::IOvraClientWithNotifications;
}  // namespace

ConditionisOvraConnected::~ConditionisOvraConnected() { ConditionisOvraConnected::Uninit(); }

bool ConditionisOvraConnected::StateFor(std::optional<bool> connected) const noexcept {
    const bool isConnected = connected.value_or(false);
    return wantConnected_ ? isConnected : !isConnected;
}

int32_t ConditionisOvraConnected::Init(const InitData& data) {
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    Client* client = Dependency<Client>();
    if (!client) {
        logging::Log(logging::kError, kInit, L"ovra client notification dependency not found");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = OpenQueue(Slot<EvQueueWithName>().queue(), kQueueName, kInit); status != 0)
        return status;
    if (!qv::JsonComposedSerializer::Load(DataOf(data.json), L"connected", wantConnected_))
        return qv::status::kInvalidParameter;
    // Registered before the current state is read, so that no report falls
    // between the two. A report that arrives during the read is newer than
    // what was read: it stays the pending state and is delivered after the
    // quiet period, while the state read is the one delivered so far.
    const uint64_t generationBefore = [this] {
        os::MutexLock lock(lock_);
        return generation_;
    }();
    if (const int32_t status = client->RegisterEcsNotifications(this); status != 0) {
        logging::Log(logging::kError, kInit, L"failed to register for connection reports [%d]", status);
        return status;
    }
    const std::optional<bool> connected = client->GetEcsConnectionState();
    const bool state = StateFor(connected);
    {
        os::MutexLock lock(lock_);
        deliveredState_ = state;
        if (generation_ == generationBefore) {
            pendingState_ = state;
            lastReport_ = connected;
        }
    }
    logging::Log(logging::kTrace, kInit, L"Condition isOvraConnected initial state %d", state ? 1 : 0);
    return 0;
}

void ConditionisOvraConnected::Uninit() {
    if (Client* client = Dependency<Client>()) {
        // Refused only when the registration never happened (a failed Init).
        static_cast<void>(client->UnregisterEcsNotifications(this));
        Slot<Client>().reset();
    }
    Slot<EvQueueWithName>().queue().Close();
}

int32_t ConditionisOvraConnected::GetState(bool* state, bool recompute) {
    if (!state) return qv::status::kInvalidParameter;
    *state = recompute ? pendingState_.load() : deliveredState_.load();
    return 0;
}

void ConditionisOvraConnected::OnEcsConnected(std::optional<bool> connected) {
    static_cast<void>(Guarded(kOnEcsConnected, [&] {
        logging::CallTrace trace(kOnEcsConnected);
        os::MutexLock lock(lock_);
        const bool state = StateFor(connected);
        logging::Log(logging::kTrace, kOnEcsConnected, L"state [%d]", state ? 1 : 0);
        const uint64_t generation = ++generation_;
        pendingState_ = state;
        lastReport_ = connected;
        deliveryPending_ = true;
        pendingSinceTick_ = os::TickMs();
        const int32_t status =
            Slot<EvQueueWithName>().queue().Post([this, generation] { DoNotify(generation); }, kQuietPeriodMs);
        if (status != 0) logging::Log(logging::kWarning, kOnEcsConnected, L"cannot schedule the delivery [%d]", status);
        return 0;
    }));
}

void ConditionisOvraConnected::DoNotify(uint64_t expectedGeneration) {
    logging::CallTrace trace(kDoNotify);
    os::MutexLock lock(lock_);
    if (expectedGeneration != generation_) return;  // a newer report is pending
    const bool state = pendingState_.load();
    deliveredState_ = state;
    deliveryPending_ = false;
    logging::Log(logging::kTrace, kDoNotify, L"20s passed since last notification. new status [%d]", state ? 1 : 0);
    static_cast<void>(NotifyChanged(state));  // the subscribers' statuses have nobody to go to here
}

Json::Value ConditionisOvraConnected::Observed() {
    os::MutexLock lock(lock_);
    Json::Value observed(Json::objectValue);
    observed["connected"] = lastReport_ ? Json::Value(*lastReport_) : Json::Value();
    observed["state"] = deliveredState_.load();
    if (deliveryPending_) {
        const uint32_t waited = os::TickMs() - pendingSinceTick_;
        observed["pendingState"] = pendingState_.load();
        observed["quietEndsInMs"] = waited < kQuietPeriodMs ? kQuietPeriodMs - waited : 0u;
    }
    return observed;
}

}  // namespace Product::Integration::ConditionManager
