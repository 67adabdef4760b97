#include "hosted_module.h"

#include <optional>
#include <utility>

#include "host/method_call.h"
#include "model/conditional_runner.h"
#include "network/network_provider_interface.h"
#include "plugin/module_names.h"
#include "qv/status.h"

namespace crhost {

namespace {
std::wstring StatusText(int32_t status) { return L" (status " + std::to_wstring(status) + L")"; }

// A failure that answered `status`; kFunctionFailed when it answered success.
os::Status Failed(int32_t status, std::wstring message) {
    return os::Status::Failure(status != 0 ? status : qv::status::kFunctionFailed, std::move(message));
}
}  // namespace

HostedModule::HostedModule(std::unique_ptr<host::SettingsStore> settings)
    : host_(/*manualClock=*/false, std::move(settings)) {
    host_.components().Register(host::AgentClientNotifications::kName, &agentClient_);
}

HostedModule::~HostedModule() {
    // A host that stopped normally has nothing left to stop; one that fails
    // while unwinding has nobody left to tell.
    static_cast<void>(Stop());
    host_.components().Unregister(host::AgentClientNotifications::kName);
}

os::Status HostedModule::Create(const std::wstring& name, const GUID& iid) {
    void* raw = nullptr;
    const int32_t status = create_(name.c_str(), &iid, &raw);
    if (status != 0 || !raw) return Failed(status, L"the module does not give the object " + name + StatusText(status));
    auto* base = static_cast<IQvBaseInterface*>(raw);
    Object object;
    object.name = name;
    object.raw = raw;
    object.plugin = static_cast<IServPlugin*>(base->QueryInterface(IServPlugin::iid));
    host_.components().Register(name, static_cast<IQvBaseInterface*>(base->QueryInterface(IQvBaseInterface::iid)));
    objects_.push_back(object);
    return os::Status::Ok();
}

os::Status HostedModule::InitAndStart(Object& object) {
    if (!object.plugin) return os::Status::Ok();
    if (const int32_t status = object.plugin->Init(host_.main()); status != 0)
        return Failed(status, L"initialising " + object.name + L" failed" + StatusText(status));
    object.initialised = true;
    if (const int32_t status = object.plugin->Start(); status != 0)
        return Failed(status, L"starting " + object.name + L" failed" + StatusText(status));
    object.started = true;
    return os::Status::Ok();
}

os::Status HostedModule::Start(const std::wstring& modulePath) {
    module_ = os::LoadedModule::Load(modulePath);
    if (!module_) return module_.status().WithContext(L"cannot load the module " + modulePath);
    create_ = module_.Function<CreateFn>("QvCreateObject");
    destroy_ = module_.Function<DestroyFn>("QvDestroyObject");
    if (!create_ || !destroy_) {
        static_cast<void>(Stop());  // the failure that matters is the one reported
        return Failed(qv::status::kFunctionFailed,
                      L"the library " + modulePath + L" does not export QvCreateObject and QvDestroyObject");
    }

    // The network provider first: the condition manager obtains it in Init;
    // a module without one runs over the host's stand-in.
    if (!Create(qv::names::kNetworkProvider, IQvBaseInterface::iid)) {
        usesStandIn_ = true;
        host_.components().Register(host::NetworkProviderStandIn::kName, &standIn_);
    }
    const std::wstring agentName = qv::names::AgentName();
    for (const std::wstring& name :
         {std::wstring(qv::names::kConditionManager), std::wstring(qv::names::kModule), agentName}) {
        if (os::Status created = Create(name, IServPlugin::iid); !created) {
            static_cast<void>(Stop());  // the failure that matters is the one reported
            return created;
        }
    }
    for (Object& object : objects_) {
        if (object.name != qv::names::kModule) continue;
        using Product::Integration::ConditionalRunner::IConditionalRunnerDiagnostics;
        using Product::Integration::ConditionalRunner::IConditionalRunnerExtensions;
        auto* base = static_cast<IQvBaseInterface*>(object.raw);
        if (stopLimitMs_) {
            if (auto* extensions =
                    static_cast<IConditionalRunnerExtensions*>(base->QueryInterface(IConditionalRunnerExtensions::iid)))
                extensions->SetStopWaitTimeout(*stopLimitMs_);
        }
        // Optional: a module without it still runs; "history" says so.
        runnerDiagnostics_ =
            static_cast<IConditionalRunnerDiagnostics*>(base->QueryInterface(IConditionalRunnerDiagnostics::iid));
    }
    for (Object& object : objects_) {
        if (os::Status started = InitAndStart(object); !started) {
            static_cast<void>(Stop());
            return started;
        }
        if (object.name == qv::names::kConditionManager) {
            using Product::Integration::ConditionManager::IManager;
            using Product::Integration::ConditionManager::IManagerDiagnostics;
            conditionManager_ = static_cast<IManager*>(object.plugin->QueryInterface(IManager::iid));
            // Optional: a module without it still runs, and "types" says so.
            managerDiagnostics_ =
                static_cast<IManagerDiagnostics*>(object.plugin->QueryInterface(IManagerDiagnostics::iid));
        }
    }
    if (!conditionManager_) {
        static_cast<void>(Stop());  // the failure that matters is the one reported
        return Failed(qv::status::kNotSupported, L"the condition manager does not answer its interface");
    }
    return os::Status::Ok();
}

EnterpriseIntegration::IAgent* HostedModule::agent() {
    return host_.agents().FindAgent(qv::names::AgentName().c_str());
}

int32_t HostedModule::Command(const std::wstring& method, Json::Value* request, Json::Value& response) {
    // The agent would read the name only up to a NUL: no command holds one.
    if (method.find(L'\0') != std::wstring::npos) return qv::status::kNotSupported;
    EnterpriseIntegration::IAgent* found = agent();
    if (!found) return qv::status::kNotFound;
    host::MethodCall call(qv::names::AgentName(), method.c_str(),
                          request ? std::optional<Json::Value>(std::move(*request)) : std::nullopt);
    found->RunPolicyMethod(&call);
    if (call.response()) response = *call.response();
    return call.GetResult();
}

std::vector<HostedModule::Object*> HostedModule::StopOrder() {
    std::vector<Object*> order;
    for (auto it = objects_.rbegin(); it != objects_.rend(); ++it) {
        if (it->name == qv::names::kModule)
            order.insert(order.begin(), &*it);
        else
            order.push_back(&*it);
    }
    return order;
}

std::wstring HostedModule::Stop() {
    std::wstring problems;
    auto note = [&](const std::wstring& step, int32_t status) {
        if (status == 0) return;
        if (!problems.empty()) problems += L"; ";
        problems += step + L" failed" + StatusText(status);
    };
    conditionManager_ = nullptr;
    managerDiagnostics_ = nullptr;
    runnerDiagnostics_ = nullptr;
    for (Object* object : StopOrder()) {
        if (object->started) note(L"stopping " + object->name, object->plugin->Stop());
        object->started = false;
    }
    for (Object* object : StopOrder()) {
        if (object->initialised) note(L"uninitialising " + object->name, object->plugin->Uninit());
        object->initialised = false;
    }
    for (auto it = objects_.rbegin(); it != objects_.rend(); ++it) {
        host_.components().Unregister(it->name);
        destroy_(it->name.c_str(), it->raw);
    }
    objects_.clear();
    if (usesStandIn_) host_.components().Unregister(host::NetworkProviderStandIn::kName);
    usesStandIn_ = false;
    module_.Reset();
    create_ = nullptr;
    destroy_ = nullptr;
    return problems;
}

}  // namespace crhost
