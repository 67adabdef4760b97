#include "host/endpoint_integration.h"

namespace host {

void* EndpointIntegration::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IManager::iid))
        return static_cast<IManager*>(this);
    if (qv::GuidEquals(requested, IRunPolicy::iid)) return static_cast<IRunPolicy*>(this);
    return nullptr;
}

bool EndpointIntegration::SendEvent(const wchar_t* name, const Json::Value& payload, int32_t flags) {
    return agents_.SendEvent(name, payload, flags);
}

EnterpriseIntegration::IAgent* EndpointIntegration::FindAgent(const wchar_t* name) { return agents_.FindAgent(name); }

uint32_t EndpointIntegration::GetAgentCount() { return agents_.GetAgentCount(); }

bool EndpointIntegration::RegisterAgent(EnterpriseIntegration::IAgent* agent) { return agents_.RegisterAgent(agent); }

bool EndpointIntegration::UnregisterAgent(EnterpriseIntegration::IAgent* agent) {
    return agents_.UnregisterAgent(agent);
}

int32_t EndpointIntegration::RunPolicy(const wchar_t* request, std::wstring& response, int32_t flags,
                                       Json::Value& details, const wchar_t* caller,
                                       EnterpriseIntegration::RunPolicyAgent* agent) {
    return runner_.RunPolicy(request, response, flags, details, caller, agent);
}

}  // namespace host
