#pragma once
// The method-set runs of one evaluation pass handed to the host's policy
// runner, one after the other, on a thread of their own, so that the
// evaluation thread waits for them (once for the whole pass, not once per
// run) and can still give up on a run that never returns, when the runner is
// being stopped and its time limit has passed.
//
// Everything the run thread touches lives in a block it shares with the
// waiter: the requests, the responses, the runs' details and the policy
// agents the host calls back during the runs. Runs given up keep that block
// alive until the one in progress returns and then drop it; they touch
// nothing of the runner, which may be gone by then, and no further run of
// the pass starts. Giving up pins the module, so the run thread's code stays
// mapped after the host releases the library.
//
// Thread rules: construct, Wait and read the results on one thread (the
// evaluation thread); the host calls the agents on the run thread. The
// results may be read only after Wait answered kFinished.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "os/event.h"
#include "qv/policy_runner.h"
#include "runner/run_policy_agent.h"

namespace Product::Integration::ConditionalRunner {

class PolicyRun {
public:
    enum class Outcome { kFinished, kGivenUp };

    // Starts `runner.RunPolicy(request, …, caller, agent)` for each request,
    // in order, on a new thread, or on this one when no thread can be made.
    // The policy runner must outlive the runs, as the host's runner outlives
    // every run in progress.
    PolicyRun(EnterpriseIntegration::IRunPolicy& runner, std::vector<std::wstring> requests, const wchar_t* caller);
    ~PolicyRun();
    PolicyRun(const PolicyRun&) = delete;
    PolicyRun& operator=(const PolicyRun&) = delete;

    // Waits until every run returned (kFinished) or `giveUp` was set
    // (kGivenUp: the run in progress goes on alone and is forgotten, and no
    // later one starts).
    [[nodiscard]] Outcome Wait(os::AutoResetEvent& giveUp);

    // The results of run `i` (in the order of the requests).
    int32_t status(size_t i) const noexcept;
    const std::wstring& response(size_t i) const noexcept;
    Json::Value& details(size_t i) noexcept;
    const ConditionalRunnerRunPolicyAgent& agent(size_t i) const noexcept;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace Product::Integration::ConditionalRunner
