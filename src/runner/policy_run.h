#pragma once
// One method-set run handed to the host's policy runner on a thread of its
// own, so that the evaluation thread waits for it and can still give up on a
// run that never returns, when the runner is being stopped and its time
// limit has passed.
//
// Everything the run thread touches lives in a block it shares with the
// waiter: the request, the response, the run's details and the policy agent
// the host calls back during the run. A run given up keeps that block alive
// until it returns and then drops it; it touches nothing of the runner, which
// may be gone by then, and runs nothing more. Giving up pins the module, so
// the run thread's code stays mapped after the host releases the library.
//
// When not to use it: a run that must finish before anything else happens
// (there is none in the runner today) is simpler called directly.
//
// Thread rules: construct, Wait and read the results on one thread (the
// evaluation thread); the host calls the agent on the run thread. The results
// may be read only after Wait answered kFinished.
#include <cstdint>
#include <memory>
#include <string>

#include <json/value.h>

#include "os/event.h"
#include "qv/policy_runner.h"
#include "runner/run_policy_agent.h"

namespace Product::Integration::ConditionalRunner {

class PolicyRun {
public:
    enum class Outcome { kFinished, kGivenUp };

    // Starts `runner.RunPolicy(request, …, caller, agent)` on a new thread, or
    // on this one when no thread can be made. The policy runner must outlive
    // the run, as the host's runner outlives every run in progress.
    PolicyRun(EnterpriseIntegration::IRunPolicy& runner, std::wstring request, const wchar_t* caller);
    ~PolicyRun();
    PolicyRun(const PolicyRun&) = delete;
    PolicyRun& operator=(const PolicyRun&) = delete;

    // Waits until the run returned (kFinished) or `giveUp` was set (kGivenUp,
    // the run goes on alone and is forgotten).
    [[nodiscard]] Outcome Wait(os::AutoResetEvent& giveUp);

    int32_t status() const noexcept;
    const std::wstring& response() const noexcept;
    Json::Value& details() noexcept;
    const ConditionalRunnerRunPolicyAgent& agent() const noexcept;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace Product::Integration::ConditionalRunner
