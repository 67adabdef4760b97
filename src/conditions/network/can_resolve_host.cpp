#include "conditions/network/can_resolve_host.h"

#include <chrono>
#include <system_error>

#include "model/json_composed_serializer.h"
#include "os/dns_query.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Init";
constexpr const wchar_t* kPass = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Pass";
constexpr const wchar_t* kUninit = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Uninit";
constexpr const wchar_t* kGetState = L"Product::Integration::ConditionManager::ConditionCanResolveHost::GetState";
constexpr const wchar_t* kOnNetworkStateChanged =
    L"Product::Integration::ConditionManager::ConditionCanResolveHost::OnNetworkStateChanged";

// Takes the spin flag for the life of the object: sets it to 1, sleeping a
// millisecond between attempts while another thread has it.
class SpinGuard {
public:
    explicit SpinGuard(std::atomic<int32_t>& flag) : flag_(flag) {
        while (flag_.exchange(1, std::memory_order_acquire) == 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~SpinGuard() { flag_.exchange(0, std::memory_order_release); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    std::atomic<int32_t>& flag_;
};

}  // namespace

bool ConditionCanResolveHost::ResolveByDns(const std::wstring& name) {
    return os::HasDnsRecord(name, os::DnsRecordType::kA) || os::HasDnsRecord(name, os::DnsRecordType::kAAAA);
}

ConditionCanResolveHost::ConditionCanResolveHost()
    : ConditionCanResolveHost([](uint32_t periodMs) { return std::make_unique<PeriodicPassTimer>(periodMs); },
                              &ResolveByDns) {}

ConditionCanResolveHost::ConditionCanResolveHost(PassTimerFactory timers, Resolver resolver)
    : timers_(std::move(timers)), resolver_(std::move(resolver)) {}

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
    const uint64_t ticket = result_.TakeTicket();
    static_cast<void>(StoreResult(ticket, Resolve()));
    StopTimer();
    timer_ = timers_(periodSeconds_ * 1000);
    try {
        thread_ = std::thread([this, timer = timer_.get()] {
            while (timer->Wait() == PassTimer::Wake::kPass) static_cast<void>(Pass());
        });
    } catch (const std::system_error&) {
        logging::Log(logging::kError, kInit, L"cannot start the resolution thread");
        return qv::status::kFunctionFailed;
    }
    return 0;
}

void ConditionCanResolveHost::StopTimer() {
    if (timer_) timer_->Stop();
    if (thread_.joinable()) thread_.join();
    timer_.reset();
}

void ConditionCanResolveHost::Uninit() {
    logging::CallTrace trace(kUninit);
    StopTimer();
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
    if (recompute) {
        const uint64_t ticket = result_.TakeTicket();
        static_cast<void>(StoreResult(ticket, Resolve()));  // the engine's request notifies nobody
    }
    *state = ReadResult();
    return 0;
}

int32_t ConditionCanResolveHost::OnNetworkStateChanged() {
    logging::CallTrace trace(kOnNetworkStateChanged);
    return Pass();
}

int32_t ConditionCanResolveHost::Pass() {
    std::lock_guard lock(passLock_);
    // The ticket is taken before the question is sent: a resolution that
    // started later and stored first keeps its answer.
    const uint64_t ticket = result_.TakeTicket();
    const bool now = Resolve();
    if (!StoreResult(ticket, now)) return 0;
    logging::Log(logging::kDetail, kPass, L"[%s] resolves: %s", hostName_.c_str(), now ? L"TRUE" : L"FALSE");
    return NotifyChanged(now);
}

bool ConditionCanResolveHost::Resolve() const { return resolver_(hostName_); }

bool ConditionCanResolveHost::ReadResult() {
    SpinGuard guard(spin_);
    return result_.value();
}

bool ConditionCanResolveHost::StoreResult(uint64_t ticket, bool value) {
    SpinGuard guard(spin_);
    return result_.Offer(ticket, value);
}

}  // namespace Product::Integration::ConditionManager
