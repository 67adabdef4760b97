#pragma once
// The host plug-ins that the condition manager obtained for itself and for
// the conditions it builds, given back when the last user lets go.
//
// The manager keeps one reference from Init to Uninit; every condition it
// hands out keeps another in its deleter until it is freed. So whichever the
// host ends first, the manager or a condition tree, the plug-ins stay
// acquired while a condition may still call into them (a condition
// unregisters from its sources in its Uninit).
//
// Thread rules: Acquire and GetNetworkProvider are called by the manager
// while it initialises, on the host's thread, before the object is shared.
// Afterwards it is only read; the last reference may go on any thread, which
// then gives the plug-ins back to the component manager.
#include <memory>
#include <string>
#include <vector>

#include "network/network_provider_lookup.h"
#include "plugin/serv_plugin.h"
#include "qv/serv_plugin.h"

namespace Product::Integration::ConditionManager {

class HeldPlugins {
public:
    // `components` must outlive the object: the host's component manager
    // lives as long as the host.
    explicit HeldPlugins(IComponentManager* components);
    // Releases every plug-in acquired, by name, in reverse order.
    ~HeldPlugins();
    HeldPlugins(const HeldPlugins&) = delete;
    HeldPlugins& operator=(const HeldPlugins&) = delete;

    // The plug-in `name` with interface `iid`, held until destruction; null
    // when the host has none.
    void* Acquire(const std::wstring& name, const GUID& iid);
    // Obtains the network provider (logged on failure); null when missing.
    Product::Integration::INetworkProvider* GetNetworkProvider();

private:
    IComponentManager* components_;
    std::vector<std::wstring> acquired_;
    qv::ServPlugin<Product::Integration::INetworkProvider> networkProvider_;
};

using SharedPlugins = std::shared_ptr<HeldPlugins>;

}  // namespace Product::Integration::ConditionManager
