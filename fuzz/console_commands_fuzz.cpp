// The console's commands through the agent and the real runner over the
// reference host, checked against a model of what the accepted commands did.
// Every status is the one the model expects: a rule whose condition cannot be
// built is left out of SetRules and UpdateRulesAndMethods and named in
// "rulesErrors" (the others are installed, the method sets still stored); a
// method-set id holding NUL, or "/" in a non-empty one, is refused with 87; a
// request that cannot be read with 160. After every command GetRules answers
// the model's rules in order and GetMethodSetIds its ids in ordinal order
// (UTF-16 code units), so a refused command changed neither; after a restart
// (a new runner over the store read again from its file) and at the end of
// the input, each method set's methods, IsEnabled and GetSettings agree too
// (the settings are not stored: a restart brings back 5 and 60).
//
// The input is text, one command per line; arguments are separated by
// spaces, a backslash takes the next character as it is ("\0" is NUL):
//   R rule...              SetRules; a rule is ID,METHODSETID,CONDITION
//   U rule... ; set...     UpdateRulesAndMethods
//   M set                  SetMethodSet; a set is ID,METHODS[,CONTEXT]
//   u set...               UpdateMethods
//   g ID | d ID | D        GetMethodSet, DeleteMethodSet, DeleteAllMethodSets
//   E 0|1 | S MIN MAX      SetEnabled, SetSettings
//   N NAME                 command NAME without a request
//   J NAME JSON            command NAME with that request (model re-read)
//   X                      restart (the first of an input)
// CONDITION, METHODS and CONTEXT are digits choosing from the tables below.
// A line that is not UTF-8, or anything else, is skipped.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/conditional_runner_agent.h"
#include "conditions/boolean_and_or.h"
#include "conditions/manager.h"
#include "fuzz_check.h"
#include "host/method_call.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "json/strict_json.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/status.h"
#include "runner/conditional_runner_al.h"
#include "scratch_folder.h"

namespace {

using Product::Integration::ConditionalRunner::ConditionalRunnerAgent;
using Product::Integration::ConditionalRunner::ConditionalRunnerAL;
using Product::Integration::ConditionManager::ConditionAggregate;
using Product::Integration::ConditionManager::Manager;
namespace status = qv::status;

constexpr size_t kMaxCommands = 48;
constexpr size_t kMaxItems = 12;  // rules or method sets in one command
constexpr size_t kMaxRestarts = 1;

Json::Value Parse(std::string_view text) {
    Json::Value value;
    // The tables hold scalars too.
    if (strict_json::Parse(text, value, nullptr, strict_json::Root::kAnyValue) == strict_json::Outcome::kParsed)
        return value;
    return Json::Value(Json::nullValue);
}

// Condition trees and the status with which the condition manager refuses
// them (0: built).
struct ConditionCase {
    const char* json;
    int32_t status;
};
const ConditionCase kConditions[] = {
    {R"({"type":"boolean.TRUE"})", 0},
    {R"({"type":"boolean.FALSE"})", 0},
    {R"({"type":"boolean.NOT","data":{"condition":{"type":"boolean.TRUE"}}})", 0},
    {R"({"type":"network.IP","data":{"address":"10.1.0.0/16"}})", 0},
    {R"({"type":"boolean.OR","data":{"conditions":[{"type":"boolean.FALSE"},{"type":"network.DNSSuffix","data":{"suffix":"corp.example"}}]}})",
     0},
    {R"({"type":"no.such.type"})", status::kCallNotImplemented},
    {R"({"type":"network.IP","data":{"address":"not an address"}})", status::kInvalidParameter},
    {R"({"type":"boolean.NOT","data":{"condition":{"type":"unknown"}}})", status::kCallNotImplemented},
    {R"({"type":"boolean.AND","data":{}})", status::kInvalidParameter},
    {R"({"data":{}})", status::kInvalidParameter},
};
// A method set's "methods"; null makes the request unreadable.
const char* const kMethods[] = {
    R"([{"plugin":"P","method":"m"}])",
    "[]",
    R"({"x":[1,2,{"y":null}]})",
    R"("text")",
    "42",
    "null",
    R"([{"plugin":"Q","method":"n","params":{"a":"\u0000"}}])",
};
// A method set's "context"; null makes the request unreadable.
const char* const kContexts[] = {R"({"reason":"r"})", "[1]", R"("c")", "null", "false"};

const char* const kCommandNames[] = {
    "SetRules",        "SetMethodSet", "GetMethodSet", "DeleteMethodSet", "DeleteAllMethodSets",
    "GetMethodSetIds", "GetRules",     "GetSettings",  "SetSettings",     "UpdateRulesAndMethods",
    "UpdateMethods",   "SetEnabled",   "IsEnabled",
};

std::string Utf8(const std::wstring& text) { return os::WideToUtf8Lossy(text); }

// The ordinal order of ids, worked out here from the texts' UTF-16 units.
std::u16string Utf16(const std::wstring& text) {
    std::u16string units;
    for (wchar_t c : text) {
        const uint32_t code = static_cast<uint32_t>(c);  // NOLINT(bugprone-signed-char-misuse): a wchar_t, no char
        if (code > 0xFFFF) {
            units.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(code));
        }
    }
    return units;
}

// What the accepted commands made of the runner.
struct Model {
    struct Rule {
        std::wstring id, methodSetId;
        Json::Value matchIf;
        std::string displayName;  // as sent: "rule ID" unless a raw request chose another
    };
    std::vector<Rule> rules;
    std::map<std::wstring, Json::Value> methodSets;  // id -> methods
    bool enabled = true;
    uint32_t minEvalTime = 5, maxPostponeTime = 60;

    std::vector<std::wstring> OrderedIds() const {
        std::vector<std::wstring> ids;
        for (const auto& [id, methods] : methodSets) ids.push_back(id);
        std::sort(ids.begin(), ids.end(), [](const auto& a, const auto& b) { return Utf16(a) < Utf16(b); });
        return ids;
    }
};

// Splits a line into arguments; null when it is not UTF-8.
std::optional<std::vector<std::wstring>> Arguments(std::string_view line) {
    std::vector<std::string> raw(1);
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == ' ') {
            if (!raw.back().empty()) raw.emplace_back();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            ++i;
            raw.back().push_back(line[i] == '0' ? '\0' : line[i]);
        } else {
            raw.back().push_back(line[i]);
        }
    }
    if (raw.back().empty()) raw.pop_back();
    std::vector<std::wstring> out;
    for (const std::string& text : raw) {
        std::optional<std::wstring> wide = os::Utf8ToWide(text);
        if (!wide) return std::nullopt;
        out.push_back(std::move(*wide));
    }
    return out;
}

// ID,X,Y: the fields split at commas (a backslash-escaped comma is already
// plain here, so ids simply hold no comma).
std::vector<std::wstring> Fields(const std::wstring& item) {
    std::vector<std::wstring> fields(1);
    for (wchar_t c : item) {
        if (c == L',')
            fields.emplace_back();
        else
            fields.back().push_back(c);
    }
    return fields;
}

size_t Choice(const std::wstring& field, size_t count) {
    size_t value = 0;
    for (wchar_t c : field)
        value = (value * 10 + static_cast<size_t>(c >= L'0' && c <= L'9' ? c - L'0' : c % 10)) % 1000;
    return value % count;
}

struct RuleItem {
    std::wstring id, methodSetId;
    const ConditionCase* condition;
};
RuleItem ReadRuleItem(const std::wstring& item) {
    std::vector<std::wstring> f = Fields(item);
    f.resize(std::max<size_t>(f.size(), 3));
    return RuleItem{f[0], f[1], &kConditions[Choice(f[2], std::size(kConditions))]};
}
struct SetItem {
    std::wstring id;
    const char* methods;
    const char* context;  // null: none
};
SetItem ReadSetItem(const std::wstring& item) {
    std::vector<std::wstring> f = Fields(item);
    f.resize(std::max<size_t>(f.size(), 2));
    return SetItem{f[0], kMethods[Choice(f[1], std::size(kMethods))],
                   f.size() > 2 ? kContexts[Choice(f[2], std::size(kContexts))] : nullptr};
}
bool Readable(const SetItem& set) {
    return std::string_view(set.methods) != "null" && (!set.context || std::string_view(set.context) != "null");
}
// Whether the id may name a settings node ("Methods_" + id).
bool Storable(const std::wstring& id) {
    return id.find(L'\0') == std::wstring::npos && (id.empty() || id.find(L'/') == std::wstring::npos);
}

Json::Value RuleJson(const RuleItem& rule) {
    Json::Value json(Json::objectValue);
    json["id"] = Utf8(rule.id);
    json["displayName"] = "rule " + Utf8(rule.id);
    json["methodSetId"] = Utf8(rule.methodSetId);
    json["matchIf"] = Parse(rule.condition->json);
    return json;
}
Json::Value SetJson(const SetItem& set) {
    Json::Value json(Json::objectValue);
    json["id"] = Utf8(set.id);
    json["displayName"] = "set " + Utf8(set.id);
    json["methods"] = Parse(set.methods);
    if (set.context) json["context"] = Parse(set.context);
    return json;
}

// The items read from the first kMaxItems arguments, and the request
// {key: [their JSON, ...]} that sends them.
template <class Item>
std::pair<std::vector<Item>, Json::Value> ItemsRequest(const char* key, const std::vector<std::wstring>& args,
                                                       Item (*read)(const std::wstring&),
                                                       Json::Value (*toJson)(const Item&)) {
    std::pair<std::vector<Item>, Json::Value> out{{}, Json::Value(Json::objectValue)};
    auto& [items, request] = out;
    request[key] = Json::Value(Json::arrayValue);
    for (size_t i = 0; i < args.size() && i < kMaxItems; ++i) {
        items.push_back(read(args[i]));
        request[key].append(toJson(items.back()));
    }
    return out;
}

// The host, the condition manager and a scratch folder, made once for the
// whole run; a store, runner and agent made anew for every input.
class Bench {
public:
    Bench() : host_(true), folder_("console") {
        host_.components().Register(host::NetworkProviderStandIn::kName, &provider_);
        host_.components().Register(qv::names::kConditionManager, static_cast<IServPlugin*>(&manager_));
        FUZZ_CHECK(manager_.Init(host_.main()) == 0, "the condition manager does not start");
        // A queue keeps its worker thread while a handle on its name is
        // open: those held here (the runner's, the AND/OR conditions') spare
        // a thread and its join per input.
        for (const wchar_t* name : {ConditionalRunnerAL::kQueueName, ConditionAggregate::kQueueName}) {
            IEventQueue* queue = nullptr;
            FUZZ_CHECK(host_.queues().CreateQueue(name, &queue) == 0, "a queue cannot be opened");
        }
    }
    // A fresh state file, runner and agent; the runner is not started.
    void Begin() {
        std::error_code error;
        std::filesystem::remove(File(), error);
        Open(false);
    }
    // The runner and agent stopped and given back, the store closed.
    void End() {
        FUZZ_CHECK(agent_->Stop() == 0, "the agent does not stop");
        FUZZ_CHECK(agent_->Uninit() == 0, "the agent does not give back its plug-ins");
        agent_.reset();
        FUZZ_CHECK(runner_->Stop() == 0, "the runner does not stop (its enabled flag not saved)");
        FUZZ_CHECK(runner_->Uninit() == 0, "the runner does not give back its plug-ins");
        host_.components().Unregister(qv::names::kModule);
        runner_.reset();
        host_.components().Unregister(host::ReferenceHost::kSettingsName);
        store_.reset();
    }
    // What a host does across a restart: everything stopped, the store read
    // again from its file, a new runner started from it.
    void Restart() {
        End();
        Open(true);
    }

    // Runs `method` with `request` (none when null): the status, the response.
    int32_t Command(const std::wstring& method, std::optional<Json::Value> request, Json::Value& response) {
        host::MethodCall call(agentName_, method.c_str(), std::move(request));
        agent_->RunPolicyMethod(&call);
        FUZZ_CHECK(call.results().size() == 1, "%zu results for one command", call.results().size());
        response = call.response() ? *call.response() : Json::Value();
        return call.GetResult();
    }

private:
    std::wstring File() const { return (folder_.path() / "state.json").wstring(); }

    void Open(bool start) {
        os::Expected<std::unique_ptr<host::SettingsStore>> opened = host::SettingsStore::Open(File());
        FUZZ_CHECK(opened.ok(), "the state file cannot be read again: %s", Utf8(opened.status().message()).c_str());
        store_ = std::move(*opened);
        host_.components().Register(host::ReferenceHost::kSettingsName, store_.get());
        runner_ = std::make_unique<ConditionalRunnerAL>();
        host_.components().Register(qv::names::kModule,
                                    static_cast<IQvBaseInterface*>(runner_->QueryInterface(IQvBaseInterface::iid)));
        FUZZ_CHECK(runner_->Init(host_.main()) == 0, "the runner does not initialise");
        if (start) FUZZ_CHECK(runner_->Start() == 0, "the runner does not start");
        agent_ = std::make_unique<ConditionalRunnerAgent>();
        FUZZ_CHECK(agent_->Init(host_.main()) == 0, "the agent does not initialise");
        FUZZ_CHECK(agent_->Start() == 0, "the agent does not start");
        agent_->GetName(agentName_);
    }

    host::ReferenceHost host_;
    host::NetworkProviderStandIn provider_;
    Manager manager_;
    fuzz_support::ScratchFolder folder_;
    std::unique_ptr<host::SettingsStore> store_;
    std::unique_ptr<ConditionalRunnerAL> runner_;
    std::unique_ptr<ConditionalRunnerAgent> agent_;
    std::wstring agentName_;
};

Bench& TheBench() {
    static Bench* bench = [] {
        static Bench made;  // its folder is removed when the process ends
        return &made;
    }();
    return *bench;
}

// Drives one input's commands and keeps the model.
class Session {
public:
    explicit Session(Bench& bench) : bench_(bench) {}

    // Every answer the runner gives about its state agrees with the model:
    // the rules and method-set ids after each command (kLight), the method
    // sets' content, the switch and the settings too after a restart and at
    // the end of the input (kFull).
    enum class Depth { kLight, kFull };
    void Check(const char* after, Depth depth = Depth::kLight) {
        Json::Value response;
        FUZZ_CHECK(Call(L"GetRules", response) == 0, "GetRules refused after %s", after);
        const Json::Value& rules = response["rules"];
        FUZZ_CHECK(rules.isArray() && rules.size() == model_.rules.size(), "after %s: %u rules, the model has %zu",
                   after, rules.size(), model_.rules.size());
        for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
            const Model::Rule& expected = model_.rules[i];
            FUZZ_CHECK(rules[i]["id"] == Json::Value(Utf8(expected.id)) &&
                           rules[i]["displayName"] == Json::Value(expected.displayName) &&
                           rules[i]["methodSetId"] == Json::Value(Utf8(expected.methodSetId)) &&
                           rules[i]["matchIf"] == expected.matchIf,
                       "after %s: rule %u is %s, the model's is %s", after, i, rules[i].toStyledString().c_str(),
                       Utf8(expected.id).c_str());
        }

        FUZZ_CHECK(Call(L"GetMethodSetIds", response) == 0, "GetMethodSetIds refused after %s", after);
        const Json::Value& ids = response["ids"];
        const std::vector<std::wstring> expected = model_.OrderedIds();
        FUZZ_CHECK(ids.isArray() && ids.size() == expected.size(), "after %s: %u method sets, the model has %zu", after,
                   ids.size(), expected.size());
        for (Json::ArrayIndex i = 0; i < ids.size(); ++i)
            FUZZ_CHECK(ids[i] == Json::Value(Utf8(expected[i])), "after %s: method set %u is %s, the model's is %s",
                       after, i, ids[i].toStyledString().c_str(), Utf8(expected[i]).c_str());
        if (depth == Depth::kLight) return;
        for (const auto& [id, methods] : model_.methodSets) {
            const int32_t got = GetMethodSet(id, response);
            FUZZ_CHECK(got == 0 && response["methods"] == methods, "after %s: method set %s answers %d, %s", after,
                       Utf8(id).c_str(), got, response.toStyledString().c_str());
        }

        FUZZ_CHECK(Call(L"IsEnabled", response) == 0 && response["enabled"] == Json::Value(model_.enabled),
                   "after %s: IsEnabled answers %s, the model has %d", after, response.toStyledString().c_str(),
                   model_.enabled);
        FUZZ_CHECK(Call(L"GetSettings", response) == 0 &&
                       response["settings"]["minEvalTime"] == Json::Value(model_.minEvalTime) &&
                       response["settings"]["maxPostponeTime"] == Json::Value(model_.maxPostponeTime),
                   "after %s: GetSettings answers %s", after, response.toStyledString().c_str());
    }

    void Run(std::string_view line) {
        if (line.empty()) return;
        const char op = line[0];
        std::optional<std::vector<std::wstring>> args = Arguments(line.substr(1));
        if (!args) return;
        switch (op) {
            case 'R':
                SetRules(*args);
                break;
            case 'U':
                UpdateRulesAndMethods(*args);
                break;
            case 'M':
                if (!args->empty()) SetMethodSet(ReadSetItem((*args)[0]));
                break;
            case 'u':
                UpdateMethods(*args);
                break;
            case 'g':
                if (!args->empty()) LookUp((*args)[0]);
                break;
            case 'd':
                if (!args->empty()) Delete((*args)[0]);
                break;
            case 'D':
                DeleteAll();
                break;
            case 'E':
                if (!args->empty()) SetEnabled((*args)[0] == L"1");
                break;
            case 'S':
                if (args->size() >= 2) SetSettings((*args)[0], (*args)[1]);
                break;
            case 'N':
                if (!args->empty()) WithoutRequest((*args)[0]);
                break;
            case 'J':
                Raw(line.substr(1));
                break;
            case 'X':
                // A restart waits out the evaluation thread's first breath
                // (milliseconds): a few per input keep the fuzzer's pace.
                if (++restarts_ > kMaxRestarts) break;
                bench_.Restart();
                model_.minEvalTime = 5;  // settings live in memory only
                model_.maxPostponeTime = 60;
                Check("a restart", Depth::kFull);
                break;
            default:
                break;
        }
    }

private:
    int32_t Call(const wchar_t* method, Json::Value& response) {
        return bench_.Command(method, Json::Value(Json::objectValue), response);
    }
    int32_t GetMethodSet(const std::wstring& id, Json::Value& response) {
        Json::Value request(Json::objectValue);
        request["id"] = Utf8(id);
        return bench_.Command(L"GetMethodSet", request, response);
    }

    // Rules as SetRules and UpdateRulesAndMethods take them: those whose
    // condition is built replace the rules; the status is the last refusal's
    // other than 120; "rulesErrors" names each refused one.
    int32_t ApplyRules(const std::vector<RuleItem>& rules, const Json::Value& response, const char* command) {
        const Json::Value& errors = response["rulesErrors"];
        FUZZ_CHECK(errors.isArray(), "%s answers no rulesErrors: %s", command, response.toStyledString().c_str());
        int32_t remembered = 0;
        Json::ArrayIndex next = 0;
        model_.rules.clear();
        for (size_t i = 0; i < rules.size(); ++i) {
            const int32_t refusal = rules[i].condition->status;
            if (refusal == 0) {
                model_.rules.push_back(
                    {rules[i].id, rules[i].methodSetId, Parse(rules[i].condition->json), "rule " + Utf8(rules[i].id)});
                continue;
            }
            if (refusal != status::kCallNotImplemented) remembered = refusal;
            FUZZ_CHECK(next < errors.size() && errors[next]["index"] == Json::Value(static_cast<int>(i)) &&
                           errors[next]["error"] == Json::Value(refusal),
                       "%s: rule %zu refused with %d is not reported so: %s", command, i, refusal,
                       errors.toStyledString().c_str());
            ++next;
        }
        FUZZ_CHECK(next == errors.size(), "%s reports more refused rules than there are", command);
        return remembered;
    }

    // Method sets as UpdateMethods and UpdateRulesAndMethods store them: each
    // that can be stored; the first refusal.
    int32_t ApplySets(const std::vector<SetItem>& sets) {
        int32_t first = 0;
        for (const SetItem& set : sets) {
            if (!Storable(set.id)) {
                if (first == 0) first = status::kInvalidParameter;
                continue;
            }
            model_.methodSets[set.id] = Parse(set.methods);
        }
        return first;
    }

    void SetRules(const std::vector<std::wstring>& args) {
        const auto [rules, request] = ItemsRequest("rules", args, ReadRuleItem, RuleJson);
        Json::Value response;
        const int32_t got = bench_.Command(L"SetRules", request, response);
        const int32_t expected = ApplyRules(rules, response, "SetRules");
        FUZZ_CHECK(got == expected, "SetRules answered %d, not %d", got, expected);
        model_.enabled = true;  // a console update resumes a disabled runner
        Check("SetRules");
    }

    void UpdateRulesAndMethods(const std::vector<std::wstring>& args) {
        std::vector<RuleItem> rules;
        std::vector<SetItem> sets;
        Json::Value request(Json::objectValue);
        request["rules"] = Json::Value(Json::arrayValue);
        request["methods"] = Json::Value(Json::arrayValue);
        bool inSets = false;
        for (const std::wstring& arg : args) {
            if (arg == L";") {
                inSets = true;
            } else if (!inSets && rules.size() < kMaxItems) {
                rules.push_back(ReadRuleItem(arg));
                request["rules"].append(RuleJson(rules.back()));
            } else if (inSets && sets.size() < kMaxItems) {
                sets.push_back(ReadSetItem(arg));
                request["methods"].append(SetJson(sets.back()));
            }
        }
        Json::Value response;
        const int32_t got = bench_.Command(L"UpdateRulesAndMethods", request, response);
        if (!std::all_of(sets.begin(), sets.end(), Readable)) {
            FUZZ_CHECK(got == status::kBadArguments, "UpdateRulesAndMethods with an unreadable set answered %d", got);
            Check("a refused UpdateRulesAndMethods");
            return;
        }
        const int32_t remembered = ApplyRules(rules, response, "UpdateRulesAndMethods");
        const int32_t sets_status = ApplySets(sets);
        const int32_t expected = remembered != 0 ? remembered : sets_status;
        FUZZ_CHECK(got == expected, "UpdateRulesAndMethods answered %d, not %d", got, expected);
        model_.enabled = true;
        Check("UpdateRulesAndMethods");
    }

    void SetMethodSet(const SetItem& set) {
        Json::Value response;
        const int32_t got = bench_.Command(L"SetMethodSet", SetJson(set), response);
        int32_t expected = 0;
        if (!Readable(set)) {
            expected = status::kBadArguments;
        } else if (!Storable(set.id)) {
            expected = status::kInvalidParameter;
        } else {
            model_.methodSets[set.id] = Parse(set.methods);
            model_.enabled = true;
        }
        FUZZ_CHECK(got == expected, "SetMethodSet of %s answered %d, not %d", Utf8(set.id).c_str(), got, expected);
        Check("SetMethodSet");
    }

    void UpdateMethods(const std::vector<std::wstring>& args) {
        const auto [sets, request] = ItemsRequest("methods", args, ReadSetItem, SetJson);
        Json::Value response;
        const int32_t got = bench_.Command(L"UpdateMethods", request, response);
        int32_t expected = status::kBadArguments;
        if (std::all_of(sets.begin(), sets.end(), Readable)) {
            expected = ApplySets(sets);
            model_.enabled = true;
        }
        FUZZ_CHECK(got == expected, "UpdateMethods answered %d, not %d", got, expected);
        Check("UpdateMethods");
    }

    void LookUp(const std::wstring& id) {
        Json::Value response;
        const int32_t got = GetMethodSet(id, response);
        const auto known = model_.methodSets.find(id);
        if (known == model_.methodSets.end())
            FUZZ_CHECK(got == status::kNotFound, "GetMethodSet of the unknown %s answered %d", Utf8(id).c_str(), got);
        else
            FUZZ_CHECK(got == 0 && response["methods"] == known->second, "GetMethodSet of %s answered %d",
                       Utf8(id).c_str(), got);
    }

    void Delete(const std::wstring& id) {
        Json::Value request(Json::objectValue);
        request["id"] = Utf8(id);
        Json::Value response;
        const int32_t got = bench_.Command(L"DeleteMethodSet", request, response);
        const int32_t expected = Storable(id) ? 0 : status::kInvalidParameter;
        FUZZ_CHECK(got == expected, "DeleteMethodSet of %s answered %d, not %d", Utf8(id).c_str(), got, expected);
        if (got == 0) model_.methodSets.erase(id);
        Check("DeleteMethodSet");
    }

    void DeleteAll() {
        Json::Value response;
        FUZZ_CHECK(Call(L"DeleteAllMethodSets", response) == 0, "DeleteAllMethodSets refused");
        model_.methodSets.clear();
        Check("DeleteAllMethodSets");
    }

    void SetEnabled(bool enabled) {
        Json::Value request(Json::objectValue);
        request["enabled"] = enabled;
        Json::Value response;
        FUZZ_CHECK(bench_.Command(L"SetEnabled", request, response) == 0, "SetEnabled refused");
        model_.enabled = enabled;
        Check("SetEnabled");
    }

    void SetSettings(const std::wstring& min, const std::wstring& max) {
        // Never below 5 s, so that no evaluation comes within an input.
        const uint32_t minEvalTime = 5 + static_cast<uint32_t>(Choice(min, 1000));
        const uint32_t maxPostponeTime = 5 + static_cast<uint32_t>(Choice(max, 1000));
        Json::Value request(Json::objectValue);
        request["settings"]["minEvalTime"] = minEvalTime;
        request["settings"]["maxPostponeTime"] = maxPostponeTime;
        Json::Value response;
        FUZZ_CHECK(bench_.Command(L"SetSettings", request, response) == 0, "SetSettings refused");
        model_.minEvalTime = minEvalTime;
        model_.maxPostponeTime = maxPostponeTime;
        Check("SetSettings");
    }

    // A call without a request: every command needs one (160), an empty
    // name is 87 and an unknown one 50. Nothing changes.
    void WithoutRequest(const std::wstring& method) {
        Json::Value response;
        const int32_t got = bench_.Command(method, std::nullopt, response);
        const std::wstring asRead(method.c_str());  // the agent reads a C string
        int32_t expected = asRead.empty() ? status::kInvalidParameter : status::kNotSupported;
        for (const char* name : kCommandNames)
            if (asRead == os::Utf8ToWideLossy(name)) expected = status::kBadArguments;
        FUZZ_CHECK(got == expected, "%s without a request answered %d, not %d", Utf8(method).c_str(), got, expected);
        Check("a command without a request");
    }

    // Any request: a refusal by a command that changes one thing only at a
    // time leaves everything as it was; otherwise the model takes what the
    // runner now answers (whose order Check still judges).
    void Raw(std::string_view rest) {
        const size_t start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) return;
        const size_t space = rest.find(' ', start);
        if (space == std::string_view::npos) return;
        const std::optional<std::wstring> method = os::Utf8ToWide(rest.substr(start, space - start));
        Json::Value request = Parse(rest.substr(space + 1));
        if (!method || !request.isObject()) return;
        Json::Value response;
        const int32_t got = bench_.Command(*method, request, response);
        const std::wstring asRead(method->c_str());
        const bool partial = asRead == L"SetRules" || asRead == L"UpdateRulesAndMethods" || asRead == L"UpdateMethods";
        if (got != 0 && !partial) {
            Check("a refused command");
            return;
        }
        Reread();
        Check("a command with any request");
    }

    void Reread() {
        Json::Value response;
        model_.rules.clear();
        FUZZ_CHECK(Call(L"GetRules", response) == 0, "GetRules refused");
        for (const Json::Value& rule : response["rules"]) {
            FUZZ_CHECK(rule["displayName"].isString(), "a rule's display name is not a string");
            model_.rules.push_back({os::Utf8ToWideLossy(rule["id"].asString()),
                                    os::Utf8ToWideLossy(rule["methodSetId"].asString()), rule["matchIf"],
                                    rule["displayName"].asString()});
        }
        model_.methodSets.clear();
        FUZZ_CHECK(Call(L"GetMethodSetIds", response) == 0, "GetMethodSetIds refused");
        for (const Json::Value& id : response["ids"]) {
            const std::wstring wide = os::Utf8ToWideLossy(id.asString());
            Json::Value set;
            FUZZ_CHECK(GetMethodSet(wide, set) == 0, "a listed method set cannot be read");
            model_.methodSets[wide] = set["methods"];
        }
        FUZZ_CHECK(Call(L"IsEnabled", response) == 0, "IsEnabled refused");
        model_.enabled = response["enabled"].asBool();
        FUZZ_CHECK(Call(L"GetSettings", response) == 0, "GetSettings refused");
        model_.minEvalTime = response["settings"]["minEvalTime"].asUInt();
        model_.maxPostponeTime = response["settings"]["maxPostponeTime"].asUInt();
    }

    Bench& bench_;
    Model model_;
    size_t restarts_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bench& bench = TheBench();
    bench.Begin();
    {
        Session session(bench);
        const std::string_view text(reinterpret_cast<const char*>(data), size);
        size_t at = 0, commands = 0;
        while (at < text.size() && commands < kMaxCommands) {
            const size_t end = std::min(text.find('\n', at), text.size());
            session.Run(text.substr(at, end - at));
            at = end + 1;
            ++commands;
        }
        session.Check("the last command", Session::Depth::kFull);
    }
    bench.End();
    return 0;
}
