#pragma once
// How the host plug-ins the runner looks up are named in log lines.
#include "plugin/serv_plugin.h"
#include "qv/host_services.h"

template <>
struct qv::InterfaceName<IEPSettings> {
    static constexpr const wchar_t* value = L"struct IEPSettings";
};

template <>
struct qv::InterfaceName<EnterpriseIntegration::IRunPolicy> {
    static constexpr const wchar_t* value = L"struct EnterpriseIntegration::IRunPolicy";
};

template <>
struct qv::InterfaceName<Framework::IGroupsManager> {
    static constexpr const wchar_t* value = L"struct Framework::IGroupsManager";
};
