#include "conditions/held_plugins.h"

#include "plugin/module_names.h"

namespace Product::Integration::ConditionManager {

HeldPlugins::HeldPlugins(IComponentManager* components)
    : components_(components), networkProvider_(qv::names::kNetworkProvider) {}

HeldPlugins::~HeldPlugins() {
    networkProvider_.Release();
    for (auto name = acquired_.rbegin(); name != acquired_.rend(); ++name) components_->ReleasePlugin(name->c_str());
}

void* HeldPlugins::Acquire(const std::wstring& name, const GUID& iid) {
    if (!components_) return nullptr;
    void* object = nullptr;
    if (components_->GetPlugin(name.c_str(), iid, &object) != 0 || !object) return nullptr;
    acquired_.push_back(name);
    return object;
}

Product::Integration::INetworkProvider* HeldPlugins::GetNetworkProvider() {
    return networkProvider_.GetPlugin(components_);
}

}  // namespace Product::Integration::ConditionManager
