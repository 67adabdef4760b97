#pragma once
// The reference host as one object: the services a plug-in finds through its
// IServMain, wired together. Tests create one per test; the host program one
// per run. Services added later are registered with `components()` by name.
//
// The agent manager and the policy runner share one name; both are offered
// through one EndpointIntegration object that answers either interface. The
// plug-in groups hold one ServiceControl in ServiceControl::kGroupName. The
// user and computer managers start empty: no user logged on, no groups.
#include <memory>
#include <string_view>
#include <utility>

#include "host/agent_manager.h"
#include "host/clock.h"
#include "host/component_manager.h"
#include "host/computer_manager.h"
#include "host/endpoint_integration.h"
#include "host/event_queue_service.h"
#include "host/plugin_groups.h"
#include "host/policy_runner.h"
#include "host/service_control.h"
#include "host/settings/settings_store.h"
#include "host/user_manager.h"

namespace host {

class ReferenceHost {
public:
    static constexpr const wchar_t* kAgentManagerName = EnterpriseIntegration::IManager::kPluginName;
    static constexpr const wchar_t* kPolicyRunnerName = EnterpriseIntegration::IRunPolicy::kPluginName;
    static constexpr const wchar_t* kGroupsName = PluginGroups::kName;

    static constexpr const wchar_t* kSettingsName = IEPSettings::kPluginName;
    static constexpr const wchar_t* kUserManagerName = UserManager::kName;
    static constexpr const wchar_t* kComputerManagerName = ComputerManager::kName;

    // With `manualClock` the queues and the policy runner's delays follow a
    // ManualClock that the caller advances; otherwise the system's steady
    // clock. A `settings` store (see SettingsStore::Open) is registered as the
    // host's settings; without one, plug-ins find none.
    explicit ReferenceHost(bool manualClock = true, std::unique_ptr<SettingsStore> settings = nullptr)
        : manualClock_(manualClock ? std::make_unique<ManualClock>() : nullptr),
          systemClock_(manualClock ? nullptr : std::make_unique<SystemClock>()),
          settings_(std::move(settings)),
          runner_(clock()),
          integration_(agents_, runner_),
          queues_(clock()),
          main_(components_) {
        static_assert(std::wstring_view(kAgentManagerName) == std::wstring_view(kPolicyRunnerName));
        components_.SetEventQueueFactory(&queues_);
        components_.Register(kAgentManagerName, static_cast<EnterpriseIntegration::IManager*>(&integration_));
        groups_.AddMember(ServiceControl::kGroupName, &serviceControl_);
        components_.Register(kGroupsName, &groups_);
        if (settings_) components_.Register(kSettingsName, settings_.get());
        components_.Register(kUserManagerName, &users_);
        components_.Register(kComputerManagerName, &computer_);
    }
    ~ReferenceHost() {
        components_.SetEventQueueFactory(nullptr);
        components_.Unregister(kUserManagerName);
        components_.Unregister(kComputerManagerName);
        if (settings_) components_.Unregister(kSettingsName);
    }
    ReferenceHost(const ReferenceHost&) = delete;
    ReferenceHost& operator=(const ReferenceHost&) = delete;

    Clock& clock() { return manualClock_ ? static_cast<Clock&>(*manualClock_) : *systemClock_; }
    ManualClock* manualClock() { return manualClock_.get(); }
    ComponentManager& components() { return components_; }
    IServMain* main() { return &main_; }
    AgentManager& agents() { return agents_; }
    PolicyRunner& policyRunner() { return runner_; }
    PluginGroups& groups() { return groups_; }
    ServiceControl& serviceControl() { return serviceControl_; }
    EventQueueService& queues() { return queues_; }
    UserManager& users() { return users_; }
    ComputerManager& computer() { return computer_; }
    // Null when the host was made without one.
    SettingsStore* settings() { return settings_.get(); }

private:
    std::unique_ptr<ManualClock> manualClock_;
    std::unique_ptr<SystemClock> systemClock_;
    std::unique_ptr<SettingsStore> settings_;  // outlives its registration below
    ComponentManager components_;
    AgentManager agents_;
    PolicyRunner runner_;
    EndpointIntegration integration_;
    ServiceControl serviceControl_;
    PluginGroups groups_;
    EventQueueService queues_;
    UserManager users_;
    ComputerManager computer_;
    ServMain main_;
};

}  // namespace host
