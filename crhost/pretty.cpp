#include "pretty.h"

#include <algorithm>
#include <iterator>

#include "output.h"

namespace crhost {
namespace {

// "08:45:01.123" of "2026-11-24T08:45:01.123Z"; the text as it is otherwise.
std::string ClockTime(const Json::Value& time) {
    const std::string text = time.asString();
    return text.size() == 24 && text[10] == 'T' ? text.substr(11, 12) : text;
}

const char* Mark(const Json::Value& state) {
    if (state.isBool()) return state.asBool() ? "\u2713" : "\u2717";
    return "?";
}

// A list of JSON values as "a, b, c" (strings without their quotes).
std::string Listed(const Json::Value& list) {
    std::string text;
    for (const Json::Value& item : list) {
        if (!text.empty()) text += ", ";
        text += item.isString() ? item.asString() : CompactJson(item);
    }
    return text.empty() ? "none" : text;
}

// What a node saw: "addresses: 10.0.0.1/24, ...; matched: 10.0.0.1/24".
std::string Observed(const Json::Value& observed) {
    std::string text;
    for (const std::string& name : observed.getMemberNames()) {
        const Json::Value& value = observed[name];
        if (!text.empty()) text += "; ";
        text += name + ": ";
        if (value.isArray())
            text += Listed(value);
        else if (value.isNull())
            text += "none";
        else
            text += value.isString() ? value.asString() : CompactJson(value);
    }
    return text;
}

void DrawTree(const Json::Value& node, const std::string& indent, std::string& out) {
    out += indent + Mark(node["state"]) + " " + node["type"].asString();
    if (node.isMember("data")) out += " " + CompactJson(node["data"]);
    if (node.isMember("error")) out += "  (error " + CompactJson(node["error"]) + ")";
    out += "\n";
    if (node.isMember("observed")) out += indent + "    saw " + Observed(node["observed"]) + "\n";
    for (const Json::Value& child : node["children"]) DrawTree(child, indent + "  ", out);
}

std::string PolicyRun(const Json::Value& line) {
    const Json::Value& run = line["policyRun"];
    std::string methods;
    for (const Json::Value& result : run["results"]) {
        if (!methods.empty()) methods += ", ";
        methods +=
            result["plugin"].asString() + "." + result["method"].asString() + " -> " + CompactJson(result["result"]);
    }
    std::string text = ClockTime(line["time"]) + " run    " + (methods.empty() ? "(no methods)" : methods) +
                       "  status " + CompactJson(run["status"]);
    if (run.isMember("statusName")) text += " " + run["statusName"].asString();
    return text + "\n";
}

std::string Event(const Json::Value& line) {
    std::string text = ClockTime(line["time"]) + " event  " + line["event"].asString();
    for (const Json::Value& report : line["payload"]["data"])
        text += "\n                    rules " + Listed(report["rulesMatched"]) + " -> error " +
                CompactJson(report["error"]);
    return text + "\n";
}

// One line per evaluation of a "history" answer.
void DrawHistory(const Json::Value& evaluations, std::string& out) {
    for (const Json::Value& evaluation : evaluations) {
        std::string line = "  " + ClockTime(evaluation["time"]) + " " + Listed(evaluation["triggers"]) + ": true " +
                           Listed(evaluation["trueRules"]);
        for (const Json::Value& run : evaluation["runs"])
            line += "; ran " + run["methodSetId"].asString() + " (" + Listed(run["rules"]) + ") -> " +
                    CompactJson(run["status"]);
        for (const Json::Value& rule : evaluation["notRun"])
            line += "; not run " + rule["ruleId"].asString() + ": " + rule["reason"].asString();
        if (evaluation.isMember("retryAt")) line += "; retry at " + ClockTime(evaluation["retryAt"]);
        out += line + "\n";
    }
}

// The members an answer's first line shows.
constexpr const char* kHeadingMembers[] = {"id", "method", "host", "status", "statusName", "error"};

bool IsHeadingMember(const std::string& name) {
    return std::find(std::begin(kHeadingMembers), std::end(kHeadingMembers), name) != std::end(kHeadingMembers);
}

// "#2 explain  ok", or "#2 explain  status 87 ERROR_INVALID_PARAMETER: why".
std::string Heading(const Json::Value& answer) {
    const bool isMethod = answer.isMember("method");
    std::string text = "#" + (answer["id"].isString() ? answer["id"].asString() : CompactJson(answer["id"])) + " " +
                       (isMethod ? answer["method"].asString() : answer["host"].asString()) + "  ";
    const Json::Value& status = answer["status"];
    if (status.isInt() && status.asInt() == 0) return text + "ok\n";
    text += "status " + CompactJson(status);
    if (answer.isMember("statusName")) text += " " + answer["statusName"].asString();
    if (answer.isMember("error")) text += ": " + answer["error"].asString();
    return text + "\n";
}

// The other members of an answer, one line each: its messages as "said:",
// empty objects left out.
void DrawMembers(const Json::Value& answer, std::string& out) {
    for (const std::string& name : answer.getMemberNames()) {
        if (IsHeadingMember(name)) continue;
        const Json::Value& value = answer[name];
        if (name == "messages" && value.isArray()) {
            for (const Json::Value& message : value) out += "  said: " + message.asString() + "\n";
            continue;
        }
        if (value.isObject() && value.empty()) continue;
        out += "  " + name + ": " + (value.isString() ? value.asString() : CompactJson(value)) + "\n";
    }
}

std::string Answer(const Json::Value& answer) {
    std::string text = Heading(answer);
    if (answer.isMember("tree"))
        DrawTree(answer["tree"], "  ", text);
    else if (answer.isMember("evaluations") && answer["evaluations"].isArray())
        DrawHistory(answer["evaluations"], text);
    else
        DrawMembers(answer, text);
    return text;
}

}  // namespace

std::string PrettyText(const Json::Value& object) {
    if (object.isMember("policyRun")) return PolicyRun(object);
    if (object.isMember("event")) return Event(object);
    if (object.isMember("line") && object.isMember("error"))
        return "line " + CompactJson(object["line"]) + ": " + object["error"].asString() + "\n";
    return Answer(object);
}

}  // namespace crhost
