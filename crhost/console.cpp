#include "console.h"

#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "action_members.h"
#include "build_failure.h"
#include "explain.h"
#include "json/strict_json.h"
#include "log_messages.h"
#include "os/status.h"
#include "os/thread_name.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/service_control.h"
#include "qv/status.h"

namespace crhost {

// The host's own services as the console reaches them.
const Console::HostAction Console::kHostActions[] = {
    {"users.logon", &Console::UserLogOn, R"("user": {"sid", "name", "domain", optional "groups": [SIDs]})",
     "logs the user on and reports it to the directory conditions"},
    {"users.logoff", &Console::UserLogOff, R"("user": {"sid"})", "logs that user off and reports it"},
    {"computer.groups", &Console::ComputerGroups, R"("groups": [{"dn", "sid"}])",
     "reports the computer's groups to the computer-group conditions"},
    {"computer.ou", &Console::ComputerOu, R"("ou": "<DN of the computer's account>")",
     "reports the computer's place in the directory"},
    {"agent.connected", &Console::AgentConnected, R"("value": true | false | null)",
     "the agent's server connection as the agent-connection conditions see it"},
    {"service.connected", &Console::ServiceConnected, "", "the service control's service-connected event"},
    {"policy.result", &Console::PolicyResult, R"("plugin", "method", "result", optional "delayMs")",
     "what that plug-in method returns from now on, and how long it takes"},
    {"explain", &Console::Explain, R"("condition": {...} or "ruleId": "<id>")",
     "builds the tree anew and answers each node's state"},
    {"rules", &Console::Rules, "", "every current rule with the state of its condition tree"},
    {"history", &Console::History, "",
     "the last 100 evaluations: when, what asked for each, the true rules, the runs, the rules that did not run and "
     "why, a retry"},
    {"status", &Console::Status, "",
     "the module at a glance: enabled, settings, rules, method sets, live conditions by type, threads, state file"},
    {"types", &Console::Types, "",
     "the condition types: each keyword, its \"data\" members (JSON type, optional or not) and an example"},
    {"help", &Console::Help, "", "lists the console's commands and the host's actions"},
    {"sleep", &Console::Sleep, R"("ms")", "answers after that long"},
    {"quit", &Console::Quit, "", "answers, then stops the module and ends"},
    {"exit", &Console::Exit, R"(optional "code" (0-255))",
     "answers, then ends the process at once without stopping the module"},
};

// The module's console commands, as its agent answers them.
const char* const Console::kModuleCommands[] = {
    "SetRules",        "GetRules",
    "SetMethodSet",    "GetMethodSet",
    "DeleteMethodSet", "DeleteAllMethodSets",
    "GetMethodSetIds", "UpdateRulesAndMethods",
    "UpdateMethods",   "GetSettings",
    "SetSettings",     "SetEnabled",
    "IsEnabled",
};

namespace {

int32_t Fail(Json::Value& out, int32_t status, const std::string& reason) {
    out["error"] = reason;
    return status;
}

// Beside a non-zero "status", its name, for the person reading the answer.
void AddStatusName(Json::Value& out) {
    const Json::Value& status = out["status"];
    if (!status.isInt() || status.asInt() == 0) return;
    out["statusName"] = StatusName(status.asInt());
}

bool Blank(const std::string& text) { return text.find_first_not_of(" \t\r") == std::string::npos; }

// Reads one line's JSON strictly (no comments, nothing after the value, no
// duplicate keys) and no deeper than the console allows; kInvalidParameter
// with the reason otherwise.
os::Expected<Json::Value> ParseLine(const std::string& text) {
    Json::Value value;
    std::string reason;
    switch (strict_json::Parse(text, value, &reason, strict_json::Root::kObjectOrArray, Console::kMaxNesting)) {
        case strict_json::Outcome::kParsed:
            return value;
        case strict_json::Outcome::kTooDeep:
            break;
        case strict_json::Outcome::kMalformed:
            reason = "not JSON: " + reason;
            break;
    }
    return os::Status::Failure(qv::status::kInvalidParameter, os::Utf8ToWideLossy(reason));
}

}  // namespace

Console::Next Console::Handle(const LineReader::Line& line) {
    if (line.tooLong) {
        Reject(line.number, "line longer than " + std::to_string(LineReader::kMaxLineBytes) + " bytes");
        return Next::kGoOn;
    }
    if (Blank(line.text)) return Next::kGoOn;
    if (!os::Utf8ToWide(line.text)) {
        Reject(line.number, "not UTF-8");
        return Next::kGoOn;
    }
    os::Expected<Json::Value> parsed = ParseLine(line.text);
    if (!parsed) {
        Reject(line.number, os::WideToUtf8Lossy(parsed.status().message()));
        return Next::kGoOn;
    }
    Json::Value in = std::move(*parsed);
    if (!in.isObject()) {
        Reject(line.number, "not a JSON object");
        return Next::kGoOn;
    }
    // A host action may carry a "method" of its own (a plug-in's method).
    const bool isHost = in.isMember("host"), isMethod = !isHost && in.isMember("method");
    if (!isHost && !isMethod) {
        Reject(line.number, "neither \"method\" nor \"host\"");
        return Next::kGoOn;
    }
    const char* kind = isMethod ? "method" : "host";
    if (!in[kind].isString()) {
        Reject(line.number, std::string("\"") + kind + "\" is not a string");
        return Next::kGoOn;
    }

    Json::Value out(Json::objectValue);
    if (in.isMember("id")) out["id"] = in["id"];
    out[kind] = in[kind];
    Next next = Next::kGoOn;
    try {
        if (isMethod)
            RunMethod(in, out);
        else
            next = RunHostAction(in, out);
    } catch (const std::exception& failure) {
        // One line may fail; the host goes on with the next.
        Json::Value failed(Json::objectValue);
        if (in.isMember("id")) failed["id"] = in["id"];
        failed[kind] = in[kind];
        failed["status"] = Fail(failed, qv::status::kFunctionFailed,
                                std::string("the host failed handling this line: ") + failure.what());
        out = std::move(failed);
    }
    AddStatusName(out);
    output_.Write(out);
    return next;
}

void Console::Reject(uint64_t line, const std::string& reason) {
    Json::Value out(Json::objectValue);
    out["error"] = reason;
    out["line"] = Json::UInt64(line);
    output_.Write(out);
}

void Console::RunMethod(Json::Value& in, Json::Value& out) {
    Json::Value* request = nullptr;
    if (in.isMember("request")) {
        request = &in["request"];
        if (!request->isObject()) {
            out["status"] = Fail(out, qv::status::kInvalidParameter, "\"request\" is not an object");
            return;
        }
    }
    // A name holding NUL is answered kNotSupported by Command itself.
    Json::Value response(Json::objectValue);
    const int32_t status = hosted_.Command(os::Utf8ToWideLossy(in["method"].asString()), request, response);
    out["status"] = status;
    if (status == qv::status::kNotFound && !hosted_.agent()) out["error"] = "the agent is not registered";
    out["response"] = response;
}

Console::Next Console::RunHostAction(const Json::Value& in, Json::Value& out) {
    const std::string& name = in["host"].asString();
    for (const HostAction& entry : kHostActions) {
        // The whole name must match: one holding NUL is longer than any entry's.
        if (name != entry.name) continue;
        out["status"] = (this->*entry.action)(in, out);
        if (exitCode_) return Next::kExit;
        return quit_ ? Next::kQuit : Next::kGoOn;
    }
    out["status"] = Fail(out, qv::status::kNotFound, "unknown host action");
    return Next::kGoOn;
}

int32_t Console::UserLogOn(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    std::optional<ActionMembers> user = members.Object("user");
    std::optional<std::wstring> sid, name, domain;
    std::optional<std::vector<std::wstring>> groups;
    if (user) {
        sid = user->Name("sid");
        name = user->Text("name");
        domain = user->Text("domain");
        if (const Json::Value* list = user->Array("groups", Presence::kOptional)) groups = user->Names("groups", *list);
    }
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    host::UserManager::UserInfo info{*sid, *name, *domain, {}};
    for (std::wstring& group : *groups) info.memberOf.push_back({std::move(group), std::wstring()});
    const int32_t status = hosted_.host().users().LogOn(info);
    if (status == qv::status::kAlreadyExists) return Fail(out, status, "a user with that SID is logged on");
    if (status != 0) return Fail(out, status, "the user manager refused the user");
    return 0;
}

int32_t Console::UserLogOff(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    std::optional<ActionMembers> user = members.Object("user");
    const std::optional<std::wstring> sid = user ? user->Name("sid") : std::nullopt;
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    const int32_t status = hosted_.host().users().LogOff(*sid);
    if (status == qv::status::kNotFound) return Fail(out, status, "no user with that SID is logged on");
    if (status != 0) return Fail(out, status, "the user manager refused the log-off");
    return 0;
}

int32_t Console::ComputerGroups(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    std::vector<host::ComputerManager::ComputerGroup> read;
    if (const Json::Value* groups = members.Array("groups", Presence::kRequired)) {
        for (Json::ArrayIndex i = 0; i < groups->size() && members.ok(); ++i) {
            std::optional<ActionMembers> group = members.Element("groups", *groups, i);
            const std::optional<std::wstring> dn = group ? group->Text("dn") : std::nullopt;
            const std::optional<std::wstring> sid = group ? group->Text("sid") : std::nullopt;
            if (dn && sid) read.push_back({*dn, *sid});
        }
    }
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    out["sinks"] = Json::UInt64(hosted_.host().computer().SetGroups(std::move(read)));
    return 0;
}

int32_t Console::ComputerOu(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    const std::optional<std::wstring> ou = members.Text("ou");
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    out["sinks"] = Json::UInt64(hosted_.host().computer().SetOrganisationalUnit(*ou));
    return 0;
}

int32_t Console::AgentConnected(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    const std::optional<std::optional<bool>> value = members.BoolOrNull("value");
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    hosted_.agentClient().SetConnectionState(*value);
    return 0;
}

int32_t Console::ServiceConnected(const Json::Value&, Json::Value& out) {
    out["sinks"] =
        Json::UInt64(hosted_.host().serviceControl().RaiseConnectionEvent(EndpointService::kServiceConnected));
    return 0;
}

int32_t Console::PolicyResult(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    const std::optional<std::wstring> plugin = members.Name("plugin"), method = members.Name("method");
    const std::optional<int32_t> result = members.Int32("result");
    const std::optional<uint32_t> delay = members.Milliseconds("delayMs", kMaxWaitMs, Presence::kOptional);
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    hosted_.host().policyRunner().SetResult(*plugin, *method, *result, std::chrono::milliseconds(*delay));
    return 0;
}

int32_t Console::CurrentRules(Json::Value& rules, Json::Value& out) {
    Json::Value response;
    Json::Value request(Json::objectValue);
    const int32_t status = hosted_.Command(L"GetRules", &request, response);
    if (status != 0) return Fail(out, status, "the module did not give its rules");
    rules = response["rules"];
    if (!rules.isArray()) rules = Json::Value(Json::arrayValue);
    return 0;
}

int32_t Console::Explain(const Json::Value& in, Json::Value& out) {
    Json::Value condition;
    if (in.isMember("condition") == in.isMember("ruleId"))
        return Fail(out, qv::status::kInvalidParameter, "give either \"condition\" or \"ruleId\"");
    if (in.isMember("condition")) {
        condition = in["condition"];
    } else {
        // Compared with the rules' ids as JSON, never as a C string.
        if (!in["ruleId"].isString()) return Fail(out, qv::status::kInvalidParameter, "\"ruleId\" must be a string");
        Json::Value rules;
        if (const int32_t status = CurrentRules(rules, out); status != 0) return status;
        for (const Json::Value& rule : rules)
            if (rule.isObject() && rule["id"] == in["ruleId"]) condition = rule["matchIf"];
        if (condition.isNull()) return Fail(out, qv::status::kNotFound, "no rule has that id");
    }
    TreeExplainer explainer(*hosted_.conditionManager(), hosted_.host().queues());
    Json::Value tree;
    int32_t status = 0;
    {
        // What the module says while it builds the tree: its reasons for a refusal.
        ThreadLogMessages said(ThreadLogMessages::kDetail);
        status = explainer.Explain(condition, tree);
        if (status != 0) {
            Json::Value& messages = out["messages"] = Json::Value(Json::arrayValue);
            for (const std::string& message : said.messages()) messages.append(message);
        }
    }
    if (status != 0) {
        out["failedAt"] =
            BuildFailureLocator(*hosted_.conditionManager(), hosted_.managerDiagnostics()).Locate(condition);
        return Fail(out, status, "the condition tree cannot be built");
    }
    out["tree"] = tree;
    return 0;
}

int32_t Console::Rules(const Json::Value&, Json::Value& out) {
    Json::Value rules;
    if (const int32_t status = CurrentRules(rules, out); status != 0) return status;
    std::vector<Json::Value> conditions;
    for (const Json::Value& rule : rules) conditions.push_back(rule.isObject() ? rule["matchIf"] : Json::Value());
    TreeExplainer explainer(*hosted_.conditionManager(), hosted_.host().queues());
    const std::vector<Json::Value> states = explainer.States(conditions);
    Json::Value& list = out["rules"] = Json::Value(Json::arrayValue);
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        const Json::Value& rule = rules[i];
        Json::Value entry(Json::objectValue);
        entry["id"] = rule.isObject() ? rule["id"] : Json::Value();
        entry["methodSetId"] = rule.isObject() ? rule["methodSetId"] : Json::Value();
        entry["state"] = states[i];
        list.append(entry);
    }
    return 0;
}

int32_t Console::Sleep(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    const std::optional<uint32_t> ms = members.Milliseconds("ms", kMaxWaitMs, Presence::kRequired);
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    // A stop request cuts the sleep short; the main loop then stops.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(*ms);
    for (auto now = std::chrono::steady_clock::now(); now < deadline; now = std::chrono::steady_clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        if (stop_.WaitFor(static_cast<uint32_t>(left.count()))) break;
    }
    return 0;
}

int32_t Console::Status(const Json::Value&, Json::Value& out) {
    // What the console itself can ask the module.
    Json::Value enabled, settings, rules, ids;
    const auto ask = [this](const wchar_t* method, Json::Value& response) {
        Json::Value request(Json::objectValue);
        return hosted_.Command(method, &request, response);
    };
    if (const int32_t status = ask(L"IsEnabled", enabled); status != 0)
        return Fail(out, status, "the module did not say whether it is enabled");
    if (const int32_t status = ask(L"GetSettings", settings); status != 0)
        return Fail(out, status, "the module did not give its settings");
    if (const int32_t status = ask(L"GetRules", rules); status != 0)
        return Fail(out, status, "the module did not give its rules");
    if (const int32_t status = ask(L"GetMethodSetIds", ids); status != 0)
        return Fail(out, status, "the module did not give its method sets");
    out["enabled"] = enabled["enabled"];
    out["settings"] = settings["settings"];
    out["rules"] = rules["rules"].size();
    out["methodSets"] = ids["ids"].size();
    if (const auto* diagnostics = hosted_.managerDiagnostics()) out["conditions"] = diagnostics->LiveConditions();
    if (auto* runner = hosted_.runnerDiagnostics()) out["evaluation"] = runner->EvaluationStatus();

    // The module names its threads "cr:<what>"; the others are the host's.
    Json::Value& threads = out["threads"] = Json::Value(Json::objectValue);
    Json::Value& module = threads["module"] = Json::Value(Json::arrayValue);
    const std::vector<os::ThreadInfo> all = os::ProcessThreads();
    for (const os::ThreadInfo& thread : all)
        if (thread.name.rfind("cr:", 0) == 0) module.append(thread.name);
    threads["process"] = static_cast<Json::UInt64>(all.size());

    Json::Value& state = out["stateFile"] = Json::Value(Json::objectValue);
    state["path"] = os::WideToUtf8Lossy(stateFile_);
    std::error_code error;
    const uintmax_t bytes = std::filesystem::file_size(std::filesystem::path(stateFile_), error);
    state["bytes"] = error ? Json::Value() : Json::Value(static_cast<Json::UInt64>(bytes));
    return 0;
}

int32_t Console::History(const Json::Value&, Json::Value& out) {
    auto* runner = hosted_.runnerDiagnostics();
    if (!runner) return Fail(out, qv::status::kNotSupported, "the module's runner keeps no history");
    out["evaluations"] = runner->History();
    return 0;
}

int32_t Console::Types(const Json::Value&, Json::Value& out) {
    const Product::Integration::ConditionManager::IManagerDiagnostics* catalog = hosted_.managerDiagnostics();
    if (!catalog) return Fail(out, qv::status::kNotSupported, "the module's condition manager has no catalog");
    out["types"] = catalog->Catalog();
    return 0;
}

int32_t Console::Help(const Json::Value&, Json::Value& out) {
    Json::Value& methods = out["methods"] = Json::Value(Json::arrayValue);
    for (const char* command : kModuleCommands) methods.append(command);
    Json::Value& actions = out["actions"] = Json::Value(Json::arrayValue);
    for (const HostAction& entry : kHostActions) {
        Json::Value action(Json::objectValue);
        action["host"] = entry.name;
        action["members"] = entry.members;
        action["does"] = entry.does;
        actions.append(action);
    }
    out["usage"] =
        R"({"id": any, "method": "<command>", "request": {...}} runs a module command; {"id": any, "host": "<action>", ...} a host action)";
    return 0;
}

int32_t Console::Quit(const Json::Value&, Json::Value&) {
    quit_ = true;
    return 0;
}

int32_t Console::Exit(const Json::Value& in, Json::Value& out) {
    ActionMembers members(in);
    const std::optional<int32_t> code = in.isMember("code") ? members.Int32("code") : 0;
    if (!members.ok()) return Fail(out, qv::status::kInvalidParameter, members.error());
    if (*code < 0 || *code > 255)
        return Fail(out, qv::status::kInvalidParameter, "\"code\" must be an exit status from 0 to 255");
    exitCode_ = *code;
    return 0;
}

}  // namespace crhost
