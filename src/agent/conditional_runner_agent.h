#pragma once
// The console's entry to the module: an agent registered with the host's
// agent manager that turns each console command into one call on the runner
// ("Product.ConditionalRunner") and relays the runner's run reports to the
// console as "Product.ConditionalRunner.MethodSetsRun" events.
//
// Thread rules: the host calls Init, Start, Stop and Uninit one at a time;
// RunPolicyMethod may run on several host threads at once between Start and
// Stop (it keeps no per-call state outside the stack); OnMethodSetsRun runs
// on the runner's evaluation thread. The agent holds no rule state.
#include <cstdint>
#include <string>
#include <vector>

#include "model/conditional_runner.h"
#include "plugin/agent_base.h"

namespace Product::Integration::ConditionalRunner {

class ConditionalRunnerAgent final : public EnterpriseIntegration::Agent<IConditionalRunner>,
                                     public IConditionalRunner::IEvents {
public:
    static constexpr const wchar_t* kMethodSetsRunEvent = L"Product.ConditionalRunner.MethodSetsRun";

    ConditionalRunnerAgent();
    ~ConditionalRunnerAgent() override;

    // 0; kNotAllAssigned before Init obtained the runner; kFunctionFailed when the agent manager
    // refuses the registration. On success the agent subscribes to run reports.
    [[nodiscard]] int32_t Start() override;
    // Unsubscribes from run reports and unregisters. Idempotent.
    [[nodiscard]] int32_t Stop() override;
    // Obtains the agent manager and the runner (kDependencyNotFound without
    // them), and the runner's extensions where it offers them.
    [[nodiscard]] int32_t Init(IServMain* main) override;
    // Stops if still started, then gives back the plug-ins.
    [[nodiscard]] int32_t Uninit() override;

    [[nodiscard]] int32_t Configure() override { return 0; }
    // Dispatches one console call; always reports a status through SetResult.
    void RunPolicyMethod(IMethodCall* call) override;
    // False without the runner, or when the runner reports no connection
    // (kConnectionInvalid or kNotConnected from GetSettings).
    bool IsReady() override;
    // Reports "Product.ConditionalRunner".
    void GetNames(INameCollector* names) override;

    // One event per report; failures are logged, never returned (always 0).
    [[nodiscard]] int32_t OnMethodSetsRun(const qv::IList<IConditionalRunner::MethodRunData>& runs) override;

    // A command handler: false when the request is missing or unreadable
    // (the runner is then not called); true after SetResult with the runner's status.
    using Handler = bool (ConditionalRunnerAgent::*)(IMethodCall* call);
    struct Command {
        const wchar_t* name;
        Handler handler;
    };

private:
    static const Command kCommands[13];

    bool SetRules(IMethodCall* call);
    bool SetMethodSet(IMethodCall* call);
    bool GetMethodSet(IMethodCall* call);
    bool DeleteMethodSet(IMethodCall* call);
    bool DeleteAllMethodSets(IMethodCall* call);
    bool GetMethodSetIds(IMethodCall* call);
    bool GetRules(IMethodCall* call);
    bool GetSettings(IMethodCall* call);
    bool SetSettings(IMethodCall* call);
    bool UpdateRulesAndMethods(IMethodCall* call);
    bool UpdateMethods(IMethodCall* call);
    bool SetEnabled(IMethodCall* call);
    bool IsEnabled(IMethodCall* call);

    // The reported part of one run, copied out of the runner's report.
    struct RunItem {
        std::wstring methodSetId;
        int32_t status = 0;
        Json::Value response;
        std::vector<std::wstring> ruleIds;
    };
    // Builds the event of one report and sends it: 0, or kInvalidParameter (no agent
    // manager), kNoData (empty report), kPathNotFound (payload not created), kCreateFailed (refused).
    [[nodiscard]] int32_t SendMethodSetsRun(const std::vector<RunItem>& items);

    bool subscribed_ = false;
    // Null with a runner that does not offer them.
    qv::ServPlugin<IConditionalRunnerExtensions> extensions_;
};

}  // namespace Product::Integration::ConditionalRunner
