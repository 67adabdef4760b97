#pragma once
// Base classes of agents: objects registered with the host's agent manager
// that answer console calls on behalf of a plug-in they front.
#include <string>

#include "plugin/scope_exit.h"
#include "plugin/serv_plugin.h"
#include "qv/integration.h"
#include "qv/status.h"

template <>
struct qv::InterfaceName<EnterpriseIntegration::IManager> {
    static constexpr const wchar_t* value = L"struct EnterpriseIntegration::IManager";
};

namespace EnterpriseIntegration {

// Thread rule: the host calls Init, Start, Stop and Uninit in that order on
// one thread at a time; console calls may come concurrently between Start and Stop.
class AgentBase : public IAgent {
public:
    static constexpr const wchar_t* kAgentManagerName = IManager::kPluginName;

    explicit AgentBase(std::wstring name = std::wstring()) : agentManager_(kAgentManagerName), name_(std::move(name)) {}
    virtual ~AgentBase() = default;

    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IServPlugin::iid) ||
            qv::GuidEquals(requested, IAgent::iid))
            return static_cast<IAgent*>(this);
        return nullptr;
    }

    [[nodiscard]] int32_t Init(IServMain* main) override {
        IComponentManager* manager = main ? main->GetComponentManager() : nullptr;
        qv::ScopeExit undo([this] { static_cast<void>(Uninit()); });  // undoing cannot fail
        if (!agentManager_.GetPlugin(manager)) return qv::status::kDependencyNotFound;
        undo.Dismiss();
        return 0;
    }

    [[nodiscard]] int32_t Uninit() override {
        Unregister();
        agentManager_.Release();
        return 0;
    }

    // Registers with the agent manager; kFunctionFailed when it refuses.
    [[nodiscard]] int32_t Start() override {
        if (!agentManager_ || !agentManager_->RegisterAgent(this)) return qv::status::kFunctionFailed;
        registered_ = true;
        return 0;
    }

    // Unregisters from the agent manager; 0.
    [[nodiscard]] int32_t Stop() override {
        Unregister();
        return 0;
    }

    [[nodiscard]] int32_t OnAttached() override { return 0; }
    void GetNames(INameCollector* names) override {
        if (names) names->Add(name_.c_str());
    }
    void GetName(std::wstring& name) override { name = name_; }
    std::wstring& GetNameInto(std::wstring& name) override {
        GetName(name);
        return name;
    }
    void OnSessionChange() override {}
    void OnPowerChange() override {}
    [[nodiscard]] int32_t OnIdle() override { return 0; }

    bool registered() const noexcept { return registered_; }

protected:
    qv::ServPlugin<IManager>& agentManager() noexcept { return agentManager_; }
    void set_registered(bool value) noexcept { registered_ = value; }
    // Leaves the agent manager if registered. Its answer only tells whether it
    // still knew the agent; either way the agent is no longer registered.
    void Unregister() {
        if (!registered_) return;
        registered_ = false;
        if (agentManager_) static_cast<void>(agentManager_->UnregisterAgent(this));
    }

private:
    qv::ServPlugin<IManager> agentManager_;
    bool registered_ = false;
    std::wstring name_;
};

// An agent that fronts the plug-in `T`, named `pluginName` in the host.
template <class T>
class Agent : public AgentBase {
public:
    Agent(std::wstring agentName, std::wstring pluginName)
        : AgentBase(std::move(agentName)), plugin_(std::move(pluginName)) {}

    // kDependencyNotFound when the agent manager or the fronted plug-in is missing; whatever
    // was acquired is then given back.
    [[nodiscard]] int32_t Init(IServMain* main) override {
        IComponentManager* manager = main ? main->GetComponentManager() : nullptr;
        qv::ScopeExit undo([this] { static_cast<void>(Uninit()); });  // undoing cannot fail
        if (!agentManager().GetPlugin(manager)) return qv::status::kDependencyNotFound;
        if (!plugin_.GetPlugin(manager)) return qv::status::kDependencyNotFound;
        undo.Dismiss();
        return 0;
    }

    [[nodiscard]] int32_t Uninit() override {
        this->Unregister();
        plugin_.Release();
        agentManager().Release();
        return 0;
    }

protected:
    qv::ServPlugin<T>& plugin() noexcept { return plugin_; }

private:
    qv::ServPlugin<T> plugin_;
};

}  // namespace EnterpriseIntegration
