#pragma once
// The module's network provider: one merged picture of the machine's network
// configuration (NetworkState), kept current by a listener thread and shared
// by every network condition. Exported as the singleton
// "Product.ConditionalRunner.NetworkProvider".
//
// Start and Stop are counted: the first Start starts the listener thread,
// waits until it has asked for address changes, and then takes the first
// snapshot on the calling thread (so no change falls between the two); the Stop that balances the
// last Start signals the thread and joins it. The listener waits for an
// address change or for its period (30 s):
// - on an address change it takes a snapshot and notifies every subscriber,
//   whether or not the state moved;
// - when the period passes it takes a snapshot and notifies only when the
//   state changed (this catches what raises no address change: host name,
//   DNS suffixes, IPv6-only changes on Windows).
// A failed registration for address changes ends the thread; the state then
// stays as last read until the provider is stopped and started again.
//
// Thread rules: every operation may be called from any thread. Notifications
// run on the listener thread, in subscription order, after the snapshot's
// lock is released, so a subscriber may call GetState. Stop must not be
// called from a notification (it joins the thread that runs it), nor by a
// caller that holds a lock a subscriber takes. Unsubscribe waits for a
// notification of that subscriber in progress on another thread.
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "network/adapter_type_extractor.h"
#include "network/change_source.h"
#include "network/network_provider_interface.h"
#include "network/network_state.h"
#include "network/wireless.h"
#include "os/adapters.h"
#include "os/event.h"
#include "os/thread_annotations.h"
#include "plugin/subscriber_container.h"
#include "qv/serv_plugin.h"

namespace Product::Integration {

class NetworkProvider final : public INetworkProvider, public IServPlugin {
public:
    static constexpr uint32_t kDefaultPeriodMs = 30000;

    struct Options {
        // Time between two timed passes of the listener.
        uint32_t periodMs = kDefaultPeriodMs;
        // What tells the listener of address changes; null: the system's.
        std::unique_ptr<IChangeSource> changeSource;
        // Reads the adapters for a snapshot; empty: the system's adapters.
        std::function<os::Expected<os::Adapters>()> readAdapters;
        // Where the agent's components are looked for.
        ComponentLibraryLocation components = ComponentLibraryLocation::Default();
    };

    // The system's sources, the specified period and component library.
    NetworkProvider();
    explicit NetworkProvider(Options options);
    // Ends a listener still running (whatever the start count) and gives the
    // components back.
    ~NetworkProvider();
    NetworkProvider(const NetworkProvider&) = delete;
    NetworkProvider& operator=(const NetworkProvider&) = delete;

    // INetworkProvider's identifier, the plug-in's and the base's.
    void* QueryInterface(const GUID& iid) override;

    // Checks that the provider's events exist: 0, or the system's error
    // (logged) when one could not be created.
    int32_t Init(IServMain* main) override;
    int32_t Uninit() override { return 0; }
    // Counted start: 0, or kFunctionFailed when the thread cannot be created
    // (the count then stays 0).
    int32_t Start() override;
    // Counted stop: 0, or kFunctionFailed when there is no Start to balance.
    int32_t Stop() override;
    int32_t GetState(NetworkState& out) override;
    // 0; kFunctionFailed when already subscribed; kInvalidParameter for null.
    int32_t Subscribe(IEvents* subscriber) override;
    int32_t Unsubscribe(IEvents* subscriber) override;

    // Takes a snapshot and makes it the current state, unless it holds no
    // address at all (the current state then stays). With `changed`, reports
    // whether the new state differs from the one before (see NetworkState's
    // equality). Always 0. Runs under the state lock, which it holds for the
    // whole snapshot.
    int32_t DoUpdateState(bool* changed = nullptr) CR_EXCLUDES(stateLock_);

    // Calls every subscriber's change notification, in order, on the calling thread.
    void NotifySubscribers();

    // For diagnostics and tests.
    bool ListenerRunning() const;
    int32_t StartCount() const;
    uint32_t periodMs() const noexcept { return periodMs_; }
    // Not synchronised: only while the listener is stopped.
    const AdapterTypeExtractor& adapterTypes() const noexcept CR_NO_THREAD_SAFETY_ANALYSIS { return types_; }

private:
    int32_t InternalStart() CR_REQUIRES(countLock_);
    void InternalStop() CR_REQUIRES(countLock_);
    // Tells `registered` once it has asked for address changes (or failed
    // to), then waits for the starter's first snapshot before its first wait.
    void NetworkListenerThread(std::promise<void>& registered, std::future<void>& firstSnapshot);
    bool RegisterForChanges();

    const uint32_t periodMs_;
    const std::unique_ptr<IChangeSource> changes_;
    const std::function<os::Expected<os::Adapters>()> readAdapters_;

    qv::SynchronyzedObjectContainer<IEvents*> subscribers_;

    os::Mutex stateLock_;  // the current state and everything a snapshot uses
    NetworkState state_ CR_GUARDED_BY(stateLock_);
    WlanAPI wlan_ CR_GUARDED_BY(stateLock_);
    AdapterTypeExtractor types_ CR_GUARDED_BY(stateLock_);

    mutable os::Mutex countLock_;  // the start count and the thread
    int32_t startCount_ CR_GUARDED_BY(countLock_) = 0;
    os::AutoResetEvent stop_;
    std::thread listener_ CR_GUARDED_BY(countLock_);
};

}  // namespace Product::Integration
