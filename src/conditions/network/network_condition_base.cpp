#include "conditions/network/network_condition_base.h"

#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionNetworkBase::Init";
constexpr const wchar_t* kUninit = L"Product::Integration::ConditionManager::ConditionNetworkBase::Uninit";
constexpr const wchar_t* kGetState = L"Product::Integration::ConditionManager::ConditionNetworkBase::GetState";
constexpr const wchar_t* kOnNetworkStateChanged =
    L"Product::Integration::ConditionManager::ConditionNetworkBase::OnNetworkStateChanged";
}  // namespace

int32_t ConditionNetworkBase::Init(const InitData& data) {
    logging::CallTrace trace(kInit);
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) {
        logging::Log(logging::kError, kInit, L"network provider not found");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = provider->Start(); status != 0) {
        logging::Log(logging::kError, kInit, L"failed to acquire network provider");
        return qv::status::kDependencyNotFound;
    }
    started_ = true;
    return 0;
}

int32_t ConditionNetworkBase::Attach() {
    if (const int32_t status = Dependency<INetworkProvider>()->Subscribe(this); status != 0) return status;
    subscribed_ = true;
    return Recompute(Notify::kNo);
}

void ConditionNetworkBase::Uninit() {
    logging::CallTrace trace(kUninit);
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) return;
    // Neither can fail here: both balance what Init did.
    if (subscribed_) static_cast<void>(provider->Unsubscribe(this));
    if (started_) static_cast<void>(provider->Stop());
    subscribed_ = started_ = false;
    Slot<INetworkProvider>().reset();
}

int32_t ConditionNetworkBase::GetState(bool* state, bool recompute) {
    logging::CallTrace trace(kGetState);
    if (!state) return qv::status::kInvalidParameter;
    if (recompute) {
        if (const int32_t status = Recompute(Notify::kNo); status != 0) return status;
    }
    std::lock_guard lock(lock_);
    *state = cached_.value();
    return 0;
}

int32_t ConditionNetworkBase::OnNetworkStateChanged() {
    logging::CallTrace trace(kOnNetworkStateChanged);
    return Recompute(Notify::kYes);
}

Json::Value ConditionNetworkBase::Observed() {
    INetworkProvider* provider = Dependency<INetworkProvider>();
    NetworkState state;
    if (!provider || provider->GetState(state) != 0) return Json::Value();
    return Describe(state);
}

int32_t ConditionNetworkBase::Recompute(Notify notify) {
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) return qv::status::kNotReady;
    // The ticket is taken before the state is read: a state the provider
    // replaces after this read is followed by a notification pass with a
    // later ticket.
    const uint64_t ticket = cached_.TakeTicket();
    NetworkState state;
    if (const int32_t status = provider->GetState(state); status != 0) return status;
    const bool value = Compute(state);
    bool changed = false;
    {
        std::lock_guard lock(lock_);
        changed = cached_.Offer(ticket, value);
    }
    if (changed && notify == Notify::kYes) return NotifyChanged(value);
    return 0;
}

}  // namespace Product::Integration::ConditionManager
