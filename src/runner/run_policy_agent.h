#pragma once
// The runner's side of a method-set run: answers the policy runner's
// questions for preset method values from the module's fixed table, and
// records whether a method could not reach its target (the agent not
// connected, or the method's agent not there), which makes the runner retry
// the rules of that run later.
//
// Thread rules: one agent per run (see PolicyRun). The policy runner calls
// it on the thread that submitted the run, PolicyRun's run thread; the
// readings come after the run returned, on the thread that waited for it.
#include <cstdint>
#include <string>

#include "qv/policy_runner.h"

namespace Product::Integration::ConditionalRunner {

class ConditionalRunnerRunPolicyAgent final : public EnterpriseIntegration::RunPolicyAgent {
public:
    // The row of the preset table for (plugin, method), exact and
    // case-sensitive: true with `value` set; false with `value` untouched.
    bool QueryMethodValue(const std::wstring& plugin, const std::wstring& method, int32_t& value) override;
    // Records kNotConnected and kAgentNotFound, each with its log line; other
    // results are neither logged nor recorded.
    void OnAfterRunPolicy(const std::wstring& plugin, const std::wstring& method, int32_t result) override;

    // Forgets what was recorded, for an agent used again.
    void Reset() noexcept { notConnected_ = agentNotFound_ = false; }
    bool notConnected() const noexcept { return notConnected_; }
    bool agentNotFound() const noexcept { return agentNotFound_; }

private:
    bool notConnected_ = false;
    bool agentNotFound_ = false;
};

}  // namespace Product::Integration::ConditionalRunner
