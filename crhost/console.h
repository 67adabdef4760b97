#pragma once
// The host program's console: one JSON object per input line, answered with
// one JSON object per output line.
//
//   {"id": any, "method": "<command>", "request": {...}}
//       one console command through the module's agent, as the agent host
//       routes it; "request" may be absent (the call then has none). Answer:
//       {"id", "method", "status", "response": {...}}. A command name holding
//       NUL is answered 50 (no command has one) without reaching the agent.
//   {"id": any, "host": "<action>", ...}
//       one of the host's own services (the table in console.cpp). Answer:
//       {"id", "host", "status", ...}, with "error" for a non-zero status.
//       A member of the wrong type (or text holding NUL) is answered 87
//       with an "error" naming it.
//
// Whatever is thrown while one line is handled is answered 1627 with its
// reason; the host goes on with the next line.
//
// A line that is not a JSON object in UTF-8, is longer than the reader
// keeps, nests deeper than kMaxNesting, or has neither "method" nor "host"
// is answered {"error": reason, "line": n}. A line with "host" is a host
// action, whatever else it holds. Blank lines are skipped. The
// answer's "id" is the line's own, left out when the line has none.
//
// Thread rule: one thread (the main loop) calls Handle.
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "hosted_module.h"
#include "line_reader.h"
#include "output.h"
#include "stop_request.h"

namespace crhost {

class Console {
public:
    static constexpr int kMaxNesting = 256;
    // Longest "sleep", and the longest delay a "policy.result" may ask for.
    static constexpr uint32_t kMaxWaitMs = 24u * 60 * 60 * 1000;

    // `stateFile` is the settings store's file, as "status" names it.
    Console(HostedModule& hosted, Output& output, StopRequest& stop, std::wstring stateFile = L"")
        : hosted_(hosted), output_(output), stop_(stop), stateFile_(std::move(stateFile)) {}

    enum class Next { kGoOn, kQuit, kExit };
    // Answers one line; kQuit after "quit", kExit after "exit" (the caller
    // then ends the process with ExitCode(), the module left running).
    Next Handle(const LineReader::Line& line);
    int ExitCode() const { return exitCode_.value_or(0); }

    // A host action: reads its members from `in`, adds its own to `out` and
    // returns its status; a non-zero status comes with out["error"].
    using Action = int32_t (Console::*)(const Json::Value& in, Json::Value& out);
    struct HostAction {
        const char* name;
        Action action;
        const char* members;  // the members it reads, as "help" lists them
        const char* does;     // what it does, in a few words
    };

private:
    static const HostAction kHostActions[];
    static const char* const kModuleCommands[];

    void Reject(uint64_t line, const std::string& reason);
    void RunMethod(Json::Value& in, Json::Value& out);  // hands in["request"] over
    Next RunHostAction(const Json::Value& in, Json::Value& out);

    // The module's current rules in order (the console's "GetRules").
    int32_t CurrentRules(Json::Value& rules, Json::Value& out);

    int32_t UserLogOn(const Json::Value& in, Json::Value& out);
    int32_t UserLogOff(const Json::Value& in, Json::Value& out);
    int32_t ComputerGroups(const Json::Value& in, Json::Value& out);
    int32_t ComputerOu(const Json::Value& in, Json::Value& out);
    int32_t AgentConnected(const Json::Value& in, Json::Value& out);
    int32_t ServiceConnected(const Json::Value& in, Json::Value& out);
    int32_t PolicyResult(const Json::Value& in, Json::Value& out);
    int32_t Explain(const Json::Value& in, Json::Value& out);
    int32_t Rules(const Json::Value& in, Json::Value& out);
    int32_t Status(const Json::Value& in, Json::Value& out);
    int32_t History(const Json::Value& in, Json::Value& out);
    int32_t Types(const Json::Value& in, Json::Value& out);
    int32_t Help(const Json::Value& in, Json::Value& out);
    int32_t Sleep(const Json::Value& in, Json::Value& out);
    int32_t Quit(const Json::Value& in, Json::Value& out);
    int32_t Exit(const Json::Value& in, Json::Value& out);

    HostedModule& hosted_;
    Output& output_;
    StopRequest& stop_;
    const std::wstring stateFile_;
    bool quit_ = false;
    std::optional<int> exitCode_;  // set by "exit"
};

}  // namespace crhost
