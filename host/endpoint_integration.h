#pragma once
// The object the host offers as "EndpointIntegration.Manager": one plug-in
// that is both the agent manager and the policy runner. It owns neither; it
// answers QueryInterface for both interfaces (so that whichever a client asks
// for, it can reach the other from it) and forwards each call to the service
// behind it. Thread rules are those of the two services.
#include "host/agent_manager.h"
#include "host/policy_runner.h"

namespace host {

class EndpointIntegration final : public EnterpriseIntegration::IManager, public EnterpriseIntegration::IRunPolicy {
public:
    // Both must outlive this object.
    EndpointIntegration(AgentManager& agents, PolicyRunner& runner) : agents_(agents), runner_(runner) {}
    EndpointIntegration(const EndpointIntegration&) = delete;
    EndpointIntegration& operator=(const EndpointIntegration&) = delete;

    void* QueryInterface(const GUID& iid) override;

    bool SendEvent(const wchar_t* name, const Json::Value& payload, int32_t flags) override;
    EnterpriseIntegration::IAgent* FindAgent(const wchar_t* name) override;
    uint32_t GetAgentCount() override;
    bool RegisterAgent(EnterpriseIntegration::IAgent* agent) override;
    bool UnregisterAgent(EnterpriseIntegration::IAgent* agent) override;

    int32_t RunPolicy(const wchar_t* request, std::wstring& response, int32_t flags, Json::Value& details,
                      const wchar_t* caller, EnterpriseIntegration::RunPolicyAgent* agent) override;

private:
    AgentManager& agents_;
    PolicyRunner& runner_;
};

}  // namespace host
