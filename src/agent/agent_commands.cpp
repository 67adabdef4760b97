// The agent's command handlers: each reads its request members, calls one
// runner operation, reports the runner's status and writes its response
// members. A handler that cannot read its request returns false before the
// runner is called. Called from RunPolicyMethod on host threads.
#include "agent/conditional_runner_agent.h"
#include "model/json_composed_serializer.h"
#include "model/runner_json.h"

namespace Product::Integration::ConditionalRunner {

using namespace JsonForms;

bool ConditionalRunnerAgent::SetRules(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    qv::List<Rule> rules;
    if (!request || !ReadRules(*request, keys::kRules, rules)) return false;
    qv::List<RuleError> errors;
    // The rules read here are needed no more: a runner that can take them
    // over keeps them without a copy.
    call->SetResult(extensions_ ? extensions_->TakeRules(rules, errors) : plugin()->SetRules(rules, errors));
    // Written whatever the status: a partial acceptance names the rules that failed.
    if (Json::Value* response = call->GetResponse()) WriteRuleErrors(*response, keys::kRulesErrors, errors);
    return true;
}

bool ConditionalRunnerAgent::SetMethodSet(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    Method methodSet;
    if (!request || !ReadMethod(*request, L"", methodSet)) return false;
    call->SetResult(plugin()->SetMethod(methodSet, true));
    return true;
}

bool ConditionalRunnerAgent::GetMethodSet(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    std::wstring id;
    if (!request || !qv::JsonComposedSerializer::Load(*request, keys::kId, id)) return false;
    Method methodSet;
    const int32_t status = plugin()->GetMethodSet(id, methodSet);
    call->SetResult(status);
    // Only the methods travel back, not the name or the context.
    if (Json::Value* response = call->GetResponse(); response && status == 0)
        qv::JsonComposedSerializer::Store(*response, keys::kMethods, methodSet.methods);
    return true;
}

bool ConditionalRunnerAgent::DeleteMethodSet(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    std::wstring id;
    if (!request || !qv::JsonComposedSerializer::Load(*request, keys::kId, id)) return false;
    call->SetResult(plugin()->DeleteMethodSet(id));
    return true;
}

bool ConditionalRunnerAgent::DeleteAllMethodSets(IMethodCall* call) {
    if (!call->GetRequest()) return false;
    call->SetResult(plugin()->DeleteAllMethodSets());
    return true;
}

bool ConditionalRunnerAgent::GetMethodSetIds(IMethodCall* call) {
    if (!call->GetRequest()) return false;
    qv::List<std::wstring> ids;
    const int32_t status = plugin()->GetMethodSetIds(ids);
    call->SetResult(status);
    if (Json::Value* response = call->GetResponse(); response && status == 0) WriteIds(*response, keys::kIds, ids);
    return true;
}

bool ConditionalRunnerAgent::GetRules(IMethodCall* call) {
    if (!call->GetRequest()) return false;
    qv::List<Rule> rules;
    const int32_t status = plugin()->GetRules(rules);
    call->SetResult(status);
    if (Json::Value* response = call->GetResponse(); response && status == 0)
        WriteRules(*response, keys::kRules, rules);
    return true;
}

bool ConditionalRunnerAgent::GetSettings(IMethodCall* call) {
    if (!call->GetRequest()) return false;
    Settings settings;
    const int32_t status = plugin()->GetSettings(settings);
    call->SetResult(status);
    if (Json::Value* response = call->GetResponse(); response && status == 0)
        WriteSettings(*response, keys::kSettings, settings);
    return true;
}

bool ConditionalRunnerAgent::SetSettings(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    Settings settings;
    if (!request || !ReadSettings(*request, keys::kSettings, settings)) return false;
    call->SetResult(plugin()->SetSettings(settings));
    return true;
}

bool ConditionalRunnerAgent::UpdateRulesAndMethods(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    qv::List<Rule> rules;
    qv::List<Method> methodSets;
    if (!request || !ReadRules(*request, keys::kRules, rules) || !ReadMethods(*request, keys::kMethods, methodSets))
        return false;
    if (!extensions_) {
        call->SetResult(plugin()->UpdateRulesAndMethods(rules, methodSets));
        return true;
    }
    qv::List<RuleError> errors;
    call->SetResult(extensions_->UpdateRulesAndMethods(rules, methodSets, errors));
    // As SetRules: written whatever the status, naming the rules left out.
    if (Json::Value* response = call->GetResponse()) WriteRuleErrors(*response, keys::kRulesErrors, errors);
    return true;
}

bool ConditionalRunnerAgent::UpdateMethods(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    qv::List<Method> methodSets;
    if (!request || !ReadMethods(*request, keys::kMethods, methodSets)) return false;
    call->SetResult(plugin()->UpdateMethods(methodSets));
    return true;
}

bool ConditionalRunnerAgent::SetEnabled(IMethodCall* call) {
    const Json::Value* request = call->GetRequest();
    bool enabled = false;
    if (!request || !ReadEnabled(*request, keys::kEnabled, enabled)) return false;
    call->SetResult(plugin()->SetEnabled(enabled));
    return true;
}

bool ConditionalRunnerAgent::IsEnabled(IMethodCall* call) {
    if (!call->GetRequest()) return false;
    bool enabled = false;
    const int32_t status = plugin()->IsEnabled(enabled);
    call->SetResult(status);
    if (Json::Value* response = call->GetResponse(); response && status == 0)
        WriteEnabled(*response, keys::kEnabled, enabled);
    return true;
}

}  // namespace Product::Integration::ConditionalRunner
