// cr-host: the module hosted as the agent host hosts it, driven through JSON
// lines on standard input and output (console.h), for development, tests,
// support and demonstration.
#include <cstdlib>
#include <memory>
#include <string>

#include "companion_libraries.h"
#include "console.h"
#include "hosted_module.h"
#include "line_reader.h"
#include "options.h"
#include "os/environment.h"
#include "os/event.h"
#include "os/file_system.h"
#include "os/module.h"
#include "os/path.h"
#include "os/standard_streams.h"
#include "os/stop_signal.h"
#include "os/utf8.h"
#include "os/wall_time.h"
#include "output.h"
#include "stop_request.h"

namespace {

enum ExitStatus : int {
    kCleanStop = 0,
    kStopFailed = 1,
    kBadUsage = 2,
    kCannotStart = 3,
};

void Complain(const std::wstring& text) {
    static_cast<void>(os::WriteStandardError(os::WideToUtf8Lossy(L"cr-host: " + text + L"\n")));
}

// The module built beside this program.
std::wstring DefaultModulePath() {
    return os::JoinPath(os::DirectoryOf(os::ProgramPath()), os::SharedLibraryFileName(L"ConditionalRunner"));
}

// A bare file name would be searched for by the system's loader; name the
// file in the working directory instead.
std::wstring AsPath(const std::wstring& path) {
    if (path.find_first_of(os::kPathSeparators) != std::wstring::npos) return path;
    return os::JoinPath(L".", path);
}

Json::Value EventLine(const host::AgentManager::SentEvent& event) {
    Json::Value line(Json::objectValue);
    line["event"] = os::WideToUtf8Lossy(event.name);
    line["payload"] = event.payload;
    line["time"] = os::Iso8601UtcNow();
    return line;
}

Json::Value PolicyRunLine(const host::PolicyRunner::Run& run) {
    Json::Value results(Json::arrayValue);
    for (const host::PolicyRunner::MethodRun& method : run.methods) {
        Json::Value entry(Json::objectValue);
        entry["plugin"] = os::WideToUtf8Lossy(method.plugin);
        entry["method"] = os::WideToUtf8Lossy(method.method);
        entry["result"] = method.result;
        results.append(entry);
    }
    Json::Value body(Json::objectValue);
    body["request"] = run.request.isNull() ? Json::Value(os::WideToUtf8Lossy(run.requestText)) : run.request;
    body["results"] = results;
    body["status"] = run.status;
    if (run.status != 0) body["statusName"] = crhost::StatusName(run.status);
    Json::Value line(Json::objectValue);
    line["policyRun"] = body;
    line["time"] = os::Iso8601UtcNow();
    return line;
}

// What the module resumed from `stateFile`, as the module itself reports it.
std::wstring ResumedState(crhost::HostedModule& hosted, const std::wstring& stateFile) {
    Json::Value rulesRequest(Json::objectValue);
    Json::Value idsRequest(Json::objectValue);
    Json::Value rules, ids;
    const int32_t rulesStatus = hosted.Command(L"GetRules", &rulesRequest, rules);
    const int32_t idsStatus = hosted.Command(L"GetMethodSetIds", &idsRequest, ids);
    if (rulesStatus != 0 || idsStatus != 0)
        return L"resumed from " + stateFile + L", but the module does not tell what (status " +
               std::to_wstring(rulesStatus != 0 ? rulesStatus : idsStatus) + L")";
    return L"resumed " + std::to_wstring(rules["rules"].size()) + L" rules and " + std::to_wstring(ids["ids"].size()) +
           L" method sets from " + stateFile;
}

int Run(const crhost::Options& options) {
    if (!options.log.empty()) os::SetEnv(L"CR_LOG_FILE", options.log);

    const bool resuming = os::PathExists(options.state);
    os::Expected<std::unique_ptr<host::SettingsStore>> opened = host::SettingsStore::Open(options.state);
    if (!opened) {
        Complain(opened.status().message());
        return kCannotStart;
    }
    std::unique_ptr<host::SettingsStore> store = std::move(*opened);

    crhost::StopRequest stop;
    os::StopSignalWatcher signals([&stop] { stop.Request(); });
    if (!signals.Active()) Complain(L"cannot watch for stop signals; they end the process at once");

    crhost::Output output(options.pretty ? crhost::Output::Format::kPretty : crhost::Output::Format::kJsonLines);
    crhost::HostedModule hosted(std::move(store));
    if (options.stopLimitMs) hosted.SetStopLimit(*options.stopLimitMs);
    hosted.host().agents().SetEventSink([&output](const auto& event) { output.Write(EventLine(event)); });
    hosted.host().policyRunner().SetRunSink([&output](const auto& run) { output.Write(PolicyRunLine(run)); });

    const std::wstring modulePath = AsPath(options.module.empty() ? DefaultModulePath() : options.module);
    if (const os::Status started = hosted.Start(modulePath); !started) {
        Complain(started.message());
        return kCannotStart;
    }
    if (hosted.usesNetworkStandIn())
        Complain(L"the module has no network provider yet: network conditions see no network");
    for (const std::wstring& missing : crhost::MissingCompanionLibraries(modulePath)) Complain(missing);
    if (resuming) Complain(ResumedState(hosted, options.state));

    os::AutoResetEvent lineAvailable;
    {
        crhost::LineReader reader(lineAvailable);
        crhost::Console console(hosted, output, stop, options.state);
        bool quit = false;
        while (!quit && !stop.Requested()) {
            if (std::optional<crhost::LineReader::Line> line = reader.Next()) {
                const crhost::Console::Next next = console.Handle(*line);
                // What a host that ends without stopping its plug-ins does:
                // the module's threads are still running as the process exits.
                if (next == crhost::Console::Next::kExit) std::exit(console.ExitCode());
                quit = next == crhost::Console::Next::kQuit;
                continue;
            }
            if (reader.Ended()) break;
            static_cast<void>(os::WaitAny({&stop.event(), &lineAvailable}, os::kInfinite));
        }
    }

    const std::wstring problems = hosted.Stop();
    hosted.host().agents().SetEventSink(nullptr);
    hosted.host().policyRunner().SetRunSink(nullptr);
    if (!problems.empty()) {
        Complain(L"stopping the module: " + problems);
        return kStopFailed;
    }
    return kCleanStop;
}

}  // namespace

// An exception that escapes ends the process with the C++ runtime's message,
// which is what a host program should do with one it did not expect.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    const os::Expected<crhost::Options> options = crhost::ParseOptions(os::CommandLineArguments(argc, argv));
    if (!options) {
        Complain(options.status().message());
        static_cast<void>(os::WriteStandardError(crhost::UsageText()));
        return kBadUsage;
    }
    if (options->help) {
        static_cast<void>(os::WriteStandardOutput(crhost::UsageText()));
        return kCleanStop;
    }
    return Run(*options);
}
