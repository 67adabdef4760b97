#include "runner/run_policy_agent.h"

#include "plugin/log.h"
#include "plugin/policy_values.h"
#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kOnAfterRunPolicy = L"ConditionalRunnerAL::ConditionalRunnerRunPolicyAgent::OnAfterRunPolicy";
}  // namespace

bool ConditionalRunnerRunPolicyAgent::QueryMethodValue(const std::wstring& plugin, const std::wstring& method,
                                                       int32_t& value) {
    uint32_t preset = 0;
    if (!qv::FindPolicyValue(plugin.c_str(), method.c_str(), preset)) return false;
    value = static_cast<int32_t>(preset);
    return true;
}

void ConditionalRunnerRunPolicyAgent::OnAfterRunPolicy(const std::wstring& plugin, const std::wstring& method,
                                                       int32_t result) {
    if (result == qv::status::kNotConnected) {
        logging::Log(logging::kWarning, kOnAfterRunPolicy, L"Running method %s.%s returned with err=%d", plugin.c_str(),
                     method.c_str(), result);
        notConnected_ = true;
    } else if (result == qv::status::kAgentNotFound) {
        logging::Log(logging::kWarning, kOnAfterRunPolicy, L"Running method %s.%s returned with ERROR_AGENT_NOT_FOUND",
                     plugin.c_str(), method.c_str());
        agentNotFound_ = true;
    }
}

}  // namespace Product::Integration::ConditionalRunner
