#pragma once
// Lookup of the network provider through the host, by its exported name.
#include "network/network_provider_interface.h"
#include "plugin/module_names.h"
#include "plugin/serv_plugin.h"

template <>
struct qv::InterfaceName<Product::Integration::INetworkProvider> {
    static constexpr const wchar_t* value = L"class Product::Integration::INetworkProvider";
};
