#pragma once
// The module as its host runs it, in process: loaded by path, its exported
// objects created through the two exports and registered with the reference
// host's component manager, started in the order a host starts them and
// stopped in the reverse order. Shared by the module's end-to-end tests.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "host/method_call.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "model/conditional_runner.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/integration.h"
#include "qv/serv_plugin.h"
#include "support/module_under_test.h"

namespace module_test {

using Product::Integration::ConditionalRunner::IConditionalRunner;
using testing_support::LoadedModule;
using testing_support::ParseJson;

// One exported object of the module, made available to the others through
// the host's component manager under its name.
class Exported {
public:
    Exported(LoadedModule& module, host::ReferenceHost& host, std::wstring name)
        : module_(module), host_(host), name_(std::move(name)) {
        void* object = nullptr;
        EXPECT_EQ(module_.create(name_.c_str(), &IServPlugin::iid, &object), 0) << "cannot create the object";
        plugin_ = static_cast<IServPlugin*>(object);
        if (plugin_)
            host_.components().Register(name_,
                                        static_cast<IQvBaseInterface*>(plugin_->QueryInterface(IQvBaseInterface::iid)));
    }
    ~Exported() {
        if (!plugin_) return;
        host_.components().Unregister(name_);
        module_.destroy(name_.c_str(), plugin_);
    }
    Exported(const Exported&) = delete;
    Exported& operator=(const Exported&) = delete;

    IServPlugin* operator->() const { return plugin_; }
    template <class I>
    I* As() const {
        return static_cast<I*>(plugin_->QueryInterface(I::iid));
    }

private:
    LoadedModule& module_;
    host::ReferenceHost& host_;
    std::wstring name_;
    IServPlugin* plugin_ = nullptr;
};

// Where the network conditions get the network from: the host's stand-in
// (which watches nothing), or the module's own provider over the system.
enum class NetworkSource { kStandIn, kModule };

// The module hosted over the settings file `settingsFile`, started in the
// order a host starts it, stopped in the reverse order.
class HostedModule {
public:
    explicit HostedModule(const std::wstring& settingsFile, NetworkSource network = NetworkSource::kStandIn)
        : host_(true, OpenStore(settingsFile)),
          manager_(module_, host_, qv::names::kConditionManager),
          runner_(module_, host_, qv::names::kModule),
          agent_(module_, host_, qv::names::AgentName()) {
        if (network == NetworkSource::kModule) {
            provider_ = std::make_unique<Exported>(module_, host_, qv::names::kNetworkProvider);
            EXPECT_EQ((*provider_)->Init(host_.main()), 0);
            EXPECT_EQ((*provider_)->Start(), 0);
        } else {
            host_.components().Register(host::NetworkProviderStandIn::kName, &standIn_);
        }
        EXPECT_EQ(manager_->Init(host_.main()), 0);
        EXPECT_EQ(runner_->Init(host_.main()), 0);
        // Evaluate as soon as a change is seen: no quiet period to wait for.
        EXPECT_EQ(runner_.As<IConditionalRunner>()->SetSettings(IConditionalRunner::Settings{0, 60}), 0);
        EXPECT_EQ(runner_->Start(), 0);
        EXPECT_EQ(agent_->Init(host_.main()), 0);
        EXPECT_EQ(agent_->Start(), 0);
    }
    ~HostedModule() {
        EXPECT_EQ(agent_->Stop(), 0);
        EXPECT_EQ(agent_->Uninit(), 0);
        EXPECT_EQ(runner_->Stop(), 0);
        EXPECT_EQ(runner_->Uninit(), 0);
        EXPECT_EQ(manager_->Uninit(), 0);
        if (provider_) {
            EXPECT_EQ((*provider_)->Stop(), 0);
            EXPECT_EQ((*provider_)->Uninit(), 0);
            provider_.reset();
        } else {
            host_.components().Unregister(host::NetworkProviderStandIn::kName);
        }
    }

    // Runs console command `method` with the JSON request `request`; its status.
    int32_t Command(const wchar_t* method, const std::string& request, Json::Value* response = nullptr) {
        host::MethodCall call(qv::names::AgentName(), method, ParseJson(request));
        agent_.As<EnterpriseIntegration::IAgent>()->RunPolicyMethod(&call);
        if (response && call.response()) *response = *call.response();
        return call.GetResult();
    }

    host::ReferenceHost& host() { return host_; }
    size_t Runs() { return host_.policyRunner().Runs().size(); }
    std::vector<host::AgentManager::SentEvent> Events() { return host_.agents().Events(); }

private:
    static std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& file) {
        os::Expected<std::unique_ptr<host::SettingsStore>> store = host::SettingsStore::Open(file);
        EXPECT_TRUE(store) << os::WideToUtf8Lossy(store.status().message());
        return store ? std::move(*store) : nullptr;
    }

    LoadedModule module_;
    host::ReferenceHost host_;
    host::NetworkProviderStandIn standIn_;
    Exported manager_;
    Exported runner_;
    Exported agent_;
    std::unique_ptr<Exported> provider_;  // the module's provider, when asked for
};

}  // namespace module_test
