#pragma once
// Host services reached by name through the component manager whose
// operations the runner uses. They are declared here so that every part of
// the module names them the same way; their operations are added together
// with the runner that calls them.
//   "EPSettings"                   IEPSettings                       settings tree
//   "EndpointIntegration.Manager"  EnterpriseIntegration::IRunPolicy policy runner
//   "Framework.Manager"            Framework::IGroupsManager         plug-in groups
//   group members                  EndpointService::IControl         service connection events

struct IEPSettings;

namespace EnterpriseIntegration {
struct IRunPolicy;
class RunPolicyAgent;
}  // namespace EnterpriseIntegration

namespace Framework {
struct IGroupsManager;
}  // namespace Framework

namespace EndpointService {
struct IControl;
}  // namespace EndpointService
