#pragma once
// The module as an agent host runs it: the library loaded by path and reached
// only through its two exports, its objects created by name, registered with
// the reference host's component manager, initialised and started in order
// (network provider, condition manager, runner, agent). At the end all are
// stopped, then all uninitialised, the runner first and the others in the
// reverse order: the runner's Stop waits for a method-set run in progress,
// whose event goes out through the agent, which must still be started. Then
// each is given back in the reverse order.
//
// Around it, the reference host's services on the system clock: settings
// store, event queues, agent manager, policy runner, plug-in groups with the
// service control, and the agent client notifications. The network provider
// is the module's own when it exports one; otherwise the host's stand-in,
// which reports no network at all.
//
// Thread rules: Start, Stop and the destructor on one thread. The services
// (host(), agentClient()) are thread-safe; agent() and conditionManager()
// are valid between a successful Start and Stop.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "conditions/manager_interface.h"
#include "host/agent_client_notifications.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "model/conditional_runner.h"
#include "os/module.h"
#include "os/status.h"
#include "qv/integration.h"

namespace crhost {

class HostedModule {
public:
    // `settings` becomes the host's settings store.
    explicit HostedModule(std::unique_ptr<host::SettingsStore> settings);
    // Stops what is still started.
    ~HostedModule();
    HostedModule(const HostedModule&) = delete;
    HostedModule& operator=(const HostedModule&) = delete;

    // How long the runner's Stop waits for a method-set run in progress
    // before giving it up; the module's own limit unless set before Start.
    void SetStopLimit(uint32_t milliseconds) { stopLimitMs_ = milliseconds; }

    // Loads the module at `modulePath` and starts its objects. On failure the
    // status says what failed, with the module's or the system's code; what
    // was started is stopped again.
    os::Status Start(const std::wstring& modulePath);
    // Stops and gives back every object, then releases the library.
    // Idempotent. Returns what failed on the way ("" when nothing did); the
    // rest is stopped all the same.
    std::wstring Stop();

    host::ReferenceHost& host() { return host_; }
    host::AgentClientNotifications& agentClient() { return agentClient_; }
    // The agent as the console reaches it: looked up in the host's agent
    // manager by its name, as the agent registered itself. Null when it did not.
    EnterpriseIntegration::IAgent* agent();
    // One console command through the agent, as the host routes it: its
    // status, with the agent's response in `response`. `request` may be null
    // (the call then has none); it is moved into the call, not copied, and
    // left null. A `method` holding NUL is answered
    // kNotSupported without reaching the agent, which reads the name as a C
    // string. kNotFound when the agent is not registered.
    int32_t Command(const std::wstring& method, Json::Value* request, Json::Value& response);
    // The module's condition manager; null before Start.
    Product::Integration::ConditionManager::IManager* conditionManager() { return conditionManager_; }
    // Its catalog of condition types; null before Start, or when the module has none.
    const Product::Integration::ConditionManager::IManagerDiagnostics* managerDiagnostics() const {
        return managerDiagnostics_;
    }
    // The runner's history and evaluation state; null before Start, or when
    // the module has none.
    Product::Integration::ConditionalRunner::IConditionalRunnerDiagnostics* runnerDiagnostics() {
        return runnerDiagnostics_;
    }
    // True when the network provider is the host's stand-in.
    bool usesNetworkStandIn() const { return usesStandIn_; }

private:
    using CreateFn = int32_t (*)(const wchar_t*, const GUID*, void**);
    using DestroyFn = void (*)(const wchar_t*, void*);

    // One object obtained from the module and made available by name.
    struct Object {
        std::wstring name;
        void* raw = nullptr;            // as QvCreateObject gave it, for QvDestroyObject
        IServPlugin* plugin = nullptr;  // null for an object that is no plug-in
        bool initialised = false;
        bool started = false;
    };

    // Creates `name` asking for `iid` and registers it.
    os::Status Create(const std::wstring& name, const GUID& iid);
    // Init then Start of the object of that name, when it is a plug-in.
    os::Status InitAndStart(Object& object);
    // The objects in the order they are stopped (and uninitialised).
    std::vector<Object*> StopOrder();

    host::ReferenceHost host_;
    host::AgentClientNotifications agentClient_;
    host::NetworkProviderStandIn standIn_;
    bool usesStandIn_ = false;
    std::optional<uint32_t> stopLimitMs_;

    os::LoadedModule module_;
    CreateFn create_ = nullptr;
    DestroyFn destroy_ = nullptr;
    std::vector<Object> objects_;  // in start order
    Product::Integration::ConditionManager::IManager* conditionManager_ = nullptr;
    Product::Integration::ConditionManager::IManagerDiagnostics* managerDiagnostics_ = nullptr;
    Product::Integration::ConditionalRunner::IConditionalRunnerDiagnostics* runnerDiagnostics_ = nullptr;
};

}  // namespace crhost
