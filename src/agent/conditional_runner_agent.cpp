#include "agent/conditional_runner_agent.h"

#include <exception>
#include <string>

#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "plugin/module_names.h"
#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kRunPolicyMethod = L"ConditionalRunnerAgent::RunPolicyMethod";
constexpr const wchar_t* kStart = L"ConditionalRunnerAgent::Start";
}  // namespace

// Searched in this order; names match exactly and case-sensitively.
const ConditionalRunnerAgent::Command ConditionalRunnerAgent::kCommands[13] = {
    {L"SetRules", &ConditionalRunnerAgent::SetRules},
    {L"SetMethodSet", &ConditionalRunnerAgent::SetMethodSet},
    {L"GetMethodSet", &ConditionalRunnerAgent::GetMethodSet},
    {L"DeleteMethodSet", &ConditionalRunnerAgent::DeleteMethodSet},
    {L"DeleteAllMethodSets", &ConditionalRunnerAgent::DeleteAllMethodSets},
    {L"GetMethodSetIds", &ConditionalRunnerAgent::GetMethodSetIds},
    {L"GetRules", &ConditionalRunnerAgent::GetRules},
    {L"GetSettings", &ConditionalRunnerAgent::GetSettings},
    {L"SetSettings", &ConditionalRunnerAgent::SetSettings},
    {L"UpdateRulesAndMethods", &ConditionalRunnerAgent::UpdateRulesAndMethods},
    {L"UpdateMethods", &ConditionalRunnerAgent::UpdateMethods},
    {L"SetEnabled", &ConditionalRunnerAgent::SetEnabled},
    {L"IsEnabled", &ConditionalRunnerAgent::IsEnabled},
};

ConditionalRunnerAgent::ConditionalRunnerAgent()
    : Agent(qv::names::AgentName(), qv::names::kModule), extensions_(qv::names::kModule) {}

int32_t ConditionalRunnerAgent::Init(IServMain* main) {
    if (const int32_t status = Agent::Init(main); status != 0) return status;
    static_cast<void>(extensions_.GetPlugin(main->GetComponentManager(), qv::PluginPresence::kOptional));
    return 0;
}

// Nothing to report to from a destructor: Uninit's status only repeats what
// Stop and the release already did.
ConditionalRunnerAgent::~ConditionalRunnerAgent() { static_cast<void>(Uninit()); }

int32_t ConditionalRunnerAgent::Start() {
    logging::CallTrace trace(kStart);
    if (!plugin()) return qv::status::kNotAllAssigned;
    if (!agentManager() || !agentManager()->RegisterAgent(this)) {
        logging::Log(logging::kError, kStart, L"Cannot start plugin. [error = %d]", qv::status::kFunctionFailed);
        return qv::status::kFunctionFailed;
    }
    set_registered(true);
    subscribed_ = plugin()->Subscribe(static_cast<IEvents*>(this), 0) == 0;
    return 0;
}

// Stop reports nothing: the runner refuses an unsubscription only for an
// agent it does not know, and either way the agent is no longer subscribed.
int32_t ConditionalRunnerAgent::Stop() {
    if (subscribed_ && plugin()) static_cast<void>(plugin()->Unsubscribe(static_cast<IEvents*>(this), 0));
    subscribed_ = false;
    return AgentBase::Stop();
}

int32_t ConditionalRunnerAgent::Uninit() {
    const int32_t stopped = Stop();
    extensions_.Release();
    const int32_t released = Agent::Uninit();
    return stopped != 0 ? stopped : released;
}

bool ConditionalRunnerAgent::IsReady() {
    if (!plugin()) return false;
    IConditionalRunner::Settings settings;
    const int32_t status = plugin()->GetSettings(settings);
    return status != qv::status::kConnectionInvalid && status != qv::status::kNotConnected;
}

void ConditionalRunnerAgent::GetNames(INameCollector* names) {
    if (names) names->Add(qv::names::kModule);
}

void ConditionalRunnerAgent::RunPolicyMethod(IMethodCall* call) {
    logging::CallTrace trace(kRunPolicyMethod);
    if (!call) return;
    if (!plugin()) {
        logging::Log(logging::kError, kRunPolicyMethod, L"not ready");
        call->SetResult(qv::status::kNotReady);
        return;
    }
    const wchar_t* rawName = call->GetMethodName();
    const std::wstring name = rawName ? rawName : L"";
    logging::Log(logging::kTrace, kRunPolicyMethod, L"method name is %s", name.c_str());
    if (name.empty()) {
        logging::Log(logging::kError, kRunPolicyMethod, L"empty method name");
        call->SetResult(qv::status::kInvalidParameter);
        return;
    }
    for (const Command& command : kCommands) {
        if (name != command.name) continue;
        bool accepted = false;
        try {
            accepted = (this->*command.handler)(call);
        } catch (const std::exception& e) {
            // Nothing may escape to the host; the handlers themselves do not throw.
            logging::Log(logging::kError, kRunPolicyMethod, L"%s - failed with exception %S", name.c_str(), e.what());
            call->SetResult(qv::status::kFunctionFailed);
            return;
        }
        if (!accepted) {
            logging::Log(logging::kWarning, kRunPolicyMethod, L"%s - input validation failed", name.c_str());
            call->SetResult(qv::status::kBadArguments);
        }
        return;
    }
    logging::Log(logging::kTrace, kRunPolicyMethod, L"Method not found [name = %s]", name.c_str());
    call->SetResult(qv::status::kNotSupported);
}

}  // namespace Product::Integration::ConditionalRunner
