#pragma once
// Names under which the module's objects are exported and looked up.
#include <string>

namespace qv::names {

inline constexpr const wchar_t* kModule = L"Product.ConditionalRunner";
inline constexpr const wchar_t* kAgentSuffix = L".Agent";
inline constexpr const wchar_t* kConditionManager = L"Product.ConditionalRunner.ConditionManager";
inline constexpr const wchar_t* kNetworkProvider = L"Product.ConditionalRunner.NetworkProvider";
// The host's plug-in group whose members tell the runner of service events.
inline constexpr const wchar_t* kServiceControlGroup = L"ConditionalRunner.ServiceControl";

// The agent's name is the module name with ".Agent" appended.
inline std::wstring AgentName() { return std::wstring(kModule) + kAgentSuffix; }

}  // namespace qv::names
