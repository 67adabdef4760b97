#include "conditions/network/network_condition_base.h"

#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionNetworkBase::Init";
}  // namespace

int32_t ConditionNetworkBase::Init(const InitData& data) {
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
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) return;
    // Neither can fail here: both balance what Init did.
    if (subscribed_) static_cast<void>(provider->Unsubscribe(this));
    if (started_) static_cast<void>(provider->Stop());
    subscribed_ = started_ = false;
    Slot<INetworkProvider>().reset();
}

int32_t ConditionNetworkBase::GetState(bool* state, bool recompute) {
    if (!state) return qv::status::kInvalidParameter;
    if (recompute) {
        if (const int32_t status = Recompute(Notify::kNo); status != 0) return status;
    }
    std::lock_guard lock(lock_);
    *state = cached_;
    return 0;
}

int32_t ConditionNetworkBase::OnNetworkStateChanged() { return Recompute(Notify::kYes); }

int32_t ConditionNetworkBase::Recompute(Notify notify) {
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) return qv::status::kNotReady;
    NetworkState state;
    if (const int32_t status = provider->GetState(state); status != 0) return status;
    const bool value = Compute(state);
    bool changed = false;
    {
        std::lock_guard lock(lock_);
        changed = value != cached_;
        cached_ = value;
    }
    if (changed && notify == Notify::kYes) return NotifyChanged(value);
    return 0;
}

}  // namespace Product::Integration::ConditionManager
