#pragma once
// Host services reached by name through the component manager whose
// operations the runner uses:
//   "EPSettings"                   IEPSettings                       settings tree
//   "EndpointIntegration.Manager"  EnterpriseIntegration::IRunPolicy policy runner
//   "Framework.Manager"            Framework::IGroupsManager         plug-in groups
//   group members                  EndpointService::IControl         service connection events
#include "qv/policy_runner.h"
#include "qv/service_control.h"
#include "qv/settings_store.h"
