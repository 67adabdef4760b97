#include "network/network_provider.h"

#include <future>
#include <system_error>

#include "network/adapter_convert.h"
#include "os/thread_checker.h"
#include "os/thread_name.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration {
namespace {

constexpr const wchar_t* kInit = L"Product::Integration::NetworkProvider::Init";
constexpr const wchar_t* kStart = L"Product::Integration::NetworkProvider::Start";
constexpr const wchar_t* kStop = L"Product::Integration::NetworkProvider::Stop";
constexpr const wchar_t* kGetState = L"Product::Integration::NetworkProvider::GetState";
constexpr const wchar_t* kSubscribe = L"Product::Integration::NetworkProvider::Subscribe";
constexpr const wchar_t* kUnsubscribe = L"Product::Integration::NetworkProvider::Unsubscribe";
constexpr const wchar_t* kDoUpdateState = L"Product::Integration::NetworkProvider::DoUpdateState";
constexpr const wchar_t* kInternalStart = L"Product::Integration::NetworkProvider::InternalStart";
constexpr const wchar_t* kListener = L"Product::Integration::NetworkProvider::NetworkListenerThread";
constexpr const wchar_t* kOnIPChangeEvent = L"Product::Integration::NetworkProvider::OnIPChangeEvent";
constexpr const wchar_t* kNotify = L"Product::Integration::NetworkProvider::NotifySubscribers";

NetworkProvider::Options DefaultOptions() { return {}; }

}  // namespace

NetworkProvider::NetworkProvider() : NetworkProvider(DefaultOptions()) {}

NetworkProvider::NetworkProvider(Options options)
    : periodMs_(options.periodMs),
      changes_(options.changeSource ? std::move(options.changeSource) : std::make_unique<SystemChangeSource>()),
      readAdapters_(options.readAdapters
                        ? std::move(options.readAdapters)
                        : std::function<os::Expected<os::Adapters>()>([] { return os::ReadAdapters(); })),
      types_(options.components) {}

NetworkProvider::~NetworkProvider() {
    os::MutexLock lock(countLock_);
    if (listener_.joinable()) InternalStop();
    startCount_ = 0;
}

void* NetworkProvider::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid))
        return static_cast<IQvBaseInterface*>(static_cast<IServPlugin*>(this));
    if (qv::GuidEquals(requested, IServPlugin::iid)) return static_cast<IServPlugin*>(this);
    if (qv::GuidEquals(requested, INetworkProvider::iid)) return static_cast<INetworkProvider*>(this);
    return nullptr;
}

int32_t NetworkProvider::Init(IServMain*) {
    logging::CallTrace trace(kInit);
    int32_t error = 0;
    if (!stop_.Valid()) {
        // The system always gives a reason; the fallback keeps Init failing if not.
        const uint32_t stopError = stop_.CreationError();
        error = stopError != 0 ? static_cast<int32_t>(stopError) : qv::status::kCreateFailed;
        logging::Log(logging::kError, kInit, L"Failed to create stop event error [%d] ", error);
    }
    if (const uint32_t notifyError = changes_->CreationError(); notifyError != 0) {
        error = static_cast<int32_t>(notifyError);
        logging::Log(logging::kError, kInit, L"Failed to create notify event error [%d] ", error);
    }
    if (error != 0) logging::Log(logging::kError, kInit, L"NetworkProvider::Init error = %d", error);
    return error;
}

int32_t NetworkProvider::Start() {
    logging::CallTrace trace(kStart);
    os::MutexLock lock(countLock_);
    if (startCount_ != 0) {
        ++startCount_;
        return qv::status::kSuccess;
    }
    const int32_t status = InternalStart();
    if (status == qv::status::kSuccess) startCount_ = 1;
    return status;
}

int32_t NetworkProvider::InternalStart() {
    if (listener_.joinable()) return DoUpdateState(nullptr);
    std::promise<void> registered;
    std::future<void> ready = registered.get_future();
    std::promise<void> firstSnapshot;
    try {
        listener_ = std::thread([this, &registered, taken = firstSnapshot.get_future()]() mutable {
            os::SetCurrentThreadName("cr:net-watch");
            NetworkListenerThread(registered, taken);
        });
    } catch (const std::system_error&) {
        logging::Log(logging::kError, kInternalStart, L"Failed to create network notifications thread");
        return qv::status::kFunctionFailed;
    }
    // The first snapshot is taken once the listener asked for changes, so
    // that a change made meanwhile is either in it or reported after it; and
    // the listener's first timed pass comes after it, so that it compares
    // with the first snapshot, not with the empty state.
    ready.wait();
    const int32_t status = DoUpdateState(nullptr);
    firstSnapshot.set_value();
    return status;
}

int32_t NetworkProvider::Stop() {
    logging::CallTrace trace(kStop);
    os::MutexLock lock(countLock_);
    if (startCount_ == 0) return qv::status::kFunctionFailed;
    if (--startCount_ == 0) InternalStop();
    return qv::status::kSuccess;
}

void NetworkProvider::InternalStop() {
    if (!listener_.joinable()) return;
    CR_CHECK_NOT_ON_THREAD(listener_.get_id(),
                           "the network provider stopped from a notification would join its own thread");
    stop_.Set();
    listener_.join();
    // A stop signal the thread did not consume (it had ended on its own)
    // must not end the next one at once.
    stop_.Reset();
}

int32_t NetworkProvider::GetState(NetworkState& out) {
    logging::CallTrace trace(kGetState);
    os::MutexLock lock(stateLock_);
    out = state_;
    return qv::status::kSuccess;
}

int32_t NetworkProvider::Subscribe(IEvents* subscriber) {
    logging::CallTrace trace(kSubscribe);
    return subscribers_.Add(subscriber);
}

int32_t NetworkProvider::Unsubscribe(IEvents* subscriber) {
    logging::CallTrace trace(kUnsubscribe);
    return subscribers_.Remove(subscriber);
}

bool NetworkProvider::ListenerRunning() const {
    os::MutexLock lock(countLock_);
    return listener_.joinable();
}

int32_t NetworkProvider::StartCount() const {
    os::MutexLock lock(countLock_);
    return startCount_;
}

int32_t NetworkProvider::DoUpdateState(bool* changed) {
    os::MutexLock lock(stateLock_);
    if (changed) *changed = false;
    types_.Refresh();

    NetworkState fresh;
    const os::Expected<os::Adapters> list = readAdapters_();
    if (list) {
        if (list->empty()) logging::Log(logging::kError, kDoUpdateState, L"GetAdaptersAddresses returns null");
        for (const os::AdapterRecord& adapter : *list) {
            // Convert fails only for a null record, which a list cannot hold.
            static_cast<void>(Convert(&adapter, fresh, types_));
        }
    } else {
        logging::Log(logging::kWarning, kDoUpdateState, L"GetAdaptersAddresses failed with error %d",
                     list.status().code());
    }
    if (!fresh.HasUnicastAddress()) {
        logging::Log(logging::kError, kDoUpdateState, L"GetAdaptersAddresses ip list is emtpy. skip this update");
        return qv::status::kSuccess;
    }

    // Failures of the wireless query are logged by it; the snapshot goes on
    // with the SSIDs gathered so far.
    static_cast<void>(wlan_.GetSSIDList(fresh.ssids));

    const os::Expected<std::wstring> host = os::ReadHostName();
    if (host) {
        fresh.hostName = *host;
        logging::Log(logging::kDetail, kDoUpdateState, L"Hostname: %s", fresh.hostName.c_str());
    } else {
        logging::Log(logging::kError, kDoUpdateState, L"Failed to retrieve the hostname.");
    }

    if (logging::CLogDLL::Exists())
        logging::Log(logging::kDetail, kDoUpdateState, L"FINAL MERGED STATE:%s", fresh.Dump().c_str());
    if (!changed || fresh == state_) {
        logging::Log(logging::kDetail, kDoUpdateState, L" NETWORK STATE NOT CHANGED");
    } else {
        *changed = true;
        logging::Log(logging::kDetail, kDoUpdateState, L" NETWORK STATE CHANGED");
    }
    state_ = std::move(fresh);
    return qv::status::kSuccess;
}

void NetworkProvider::NotifySubscribers() {
    subscribers_.ForEach([](IEvents* subscriber) {
        if (const int32_t status = subscriber->OnNetworkStateChanged(); status != 0)
            logging::Log(logging::kWarning, kNotify, L"A subscriber failed the change notification: %d", status);
    });
}

bool NetworkProvider::RegisterForChanges() {
    if (changes_->Register() == 0) return true;
    logging::Log(logging::kError, kListener, L"Failed to register for network notifications");
    return false;
}

void NetworkProvider::NetworkListenerThread(std::promise<void>& registered, std::future<void>& firstSnapshot) {
    bool listening = RegisterForChanges();
    registered.set_value();  // `registered` is gone once the starter moves on
    firstSnapshot.wait();
    for (; listening; listening = RegisterForChanges()) {
        const IChangeSource::WaitResult wake = changes_->Wait(stop_, periodMs_);
        if (wake == IChangeSource::WaitResult::kChanged) {
            static_cast<void>(DoUpdateState(nullptr));
            logging::Log(logging::kDetail, kOnIPChangeEvent, L"Notifying listeners");
            NotifySubscribers();
        } else if (wake == IChangeSource::WaitResult::kTimeout) {
            bool changed = false;
            static_cast<void>(DoUpdateState(&changed));
            if (changed) NotifySubscribers();
        } else if (wake == IChangeSource::WaitResult::kFailed) {
            logging::Log(logging::kError, kListener,
                         L"Waiting for network notifications failed: the network state stays as last read until "
                         L"the provider is started again");
            break;
        } else {
            break;  // stopped
        }
    }
    changes_->Cancel();
    logging::Log(logging::kDetail, kListener, L"Exit NetworkProvider::NetworkListenerThread");
}

}  // namespace Product::Integration
