#include "conditions/network/can_resolve_host.h"

#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "os/wall_time.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Init";
constexpr const wchar_t* kOnResolved = L"Product::Integration::ConditionManager::ConditionCanResolveHost::OnResolved";
constexpr const wchar_t* kUninit = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Uninit";
constexpr const wchar_t* kGetState = L"Product::Integration::ConditionManager::ConditionCanResolveHost::GetState";
constexpr const wchar_t* kOnNetworkStateChanged =
    L"Product::Integration::ConditionManager::ConditionCanResolveHost::OnNetworkStateChanged";
}  // namespace

ConditionCanResolveHost::ConditionCanResolveHost() : ConditionCanResolveHost(SharedResolver::Shared()) {}

ConditionCanResolveHost::ConditionCanResolveHost(SharedResolver& resolver) : resolver_(resolver) {}

ConditionCanResolveHost::~ConditionCanResolveHost() { ConditionCanResolveHost::Uninit(); }

int32_t ConditionCanResolveHost::Init(const InitData& data) {
    logging::CallTrace trace(kInit);
    if (!qv::JsonComposedSerializer::Load(DataOf(data.json), L"address", hostName_))
        return qv::status::kInvalidParameter;
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) {
        logging::Log(logging::kError, kInit, L"cannot found network provider");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = provider->Start(); status != 0) {
        logging::Log(logging::kError, kInit, L"failed to acquire network provider [%d]", status);
        return status;
    }
    started_ = true;
    if (const int32_t status = provider->Subscribe(this); status != 0) return status;
    subscribed_ = true;
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    if (!resolver_.Subscribe(this, hostName_)) {
        logging::Log(logging::kError, kInit, L"cannot start the resolution thread");
        return qv::status::kFunctionFailed;
    }
    asking_ = true;
    return 0;
}

void ConditionCanResolveHost::Uninit() {
    logging::CallTrace trace(kUninit);
    if (asking_) resolver_.Unsubscribe(this);
    asking_ = false;
    INetworkProvider* provider = Dependency<INetworkProvider>();
    if (!provider) return;
    if (subscribed_) static_cast<void>(provider->Unsubscribe(this));  // balances Init's Subscribe
    if (started_) static_cast<void>(provider->Stop());
    subscribed_ = started_ = false;
    Slot<INetworkProvider>().reset();
}

int32_t ConditionCanResolveHost::GetState(bool* state, bool recompute) {
    logging::CallTrace trace(kGetState);
    if (!state) return qv::status::kInvalidParameter;
    if (recompute) resolver_.Refresh(this, SharedResolver::Reason::kValueRequest);
    os::MutexLock lock(mutex_);
    *state = value_;
    return 0;
}

int32_t ConditionCanResolveHost::OnNetworkStateChanged() {
    logging::CallTrace trace(kOnNetworkStateChanged);
    resolver_.Refresh(this, SharedResolver::Reason::kNetworkChanged);
    return 0;
}

void ConditionCanResolveHost::OnResolved(const SharedResolver::Resolution& resolution) {
    const bool resolves = resolution.resolves();
    {
        os::MutexLock lock(mutex_);
        last_ = resolution;
        if (value_ == resolves) return;
        value_ = resolves;
    }
    // Answers come one at a time, so each flip is notified once and in order.
    logging::Log(logging::kDetail, kOnResolved, L"[%s] resolves: %s", hostName_.c_str(), resolves ? L"TRUE" : L"FALSE");
    static_cast<void>(NotifyChanged(resolves));
}

Json::Value ConditionCanResolveHost::Observed() {
    os::MutexLock lock(mutex_);
    Json::Value observed(Json::objectValue);
    observed["name"] = os::WideToUtf8Lossy(hostName_);
    observed["resolves"] = value_;
    observed["answeredBy"] = last_ ? Json::Value(SharedResolver::AnswerName(last_->answer)) : Json::Value();
    observed["askedAt"] = last_ ? Json::Value(os::Iso8601Utc(last_->askedAt)) : Json::Value();
    return observed;
}

}  // namespace Product::Integration::ConditionManager
