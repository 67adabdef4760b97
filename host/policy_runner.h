#pragma once
// Reference policy runner: runs the methods of a method set one after the
// other and tells the caller's agent about each. The methods do not exist
// here; each plug-in/method pair answers the result (and takes the delay)
// that a test or the host program configured for it, 0 at once otherwise.
// Every run is recorded and handed to an optional sink.
//
// Request: {"methods": [{"plugin": "...", "method": "...", "params": ...}, ...],
// "context": ...}; "params" and "context" are optional and only recorded.
// Plug-in and method names must be non-empty strings.
//
// Response of a run that was not refused:
//   {"results": [{"plugin": "...", "method": "...", "result": n}, ...]}
// one entry per method in request order; an entry also holds "preset": v
// when the agent answered a preset value v for that method. A refused run
// leaves the response empty. `details` becomes {"caller": "..."} for a run
// that was not refused, null otherwise.
//
// Thread rule: every operation may be called from any thread. Runs proceed
// in parallel; the agent, the sink and the delays are never called or waited
// for under the runner's lock. Destroying the runner ends the delays of the
// runs in progress (each such run answers kOperationAborted and runs no
// further method) and waits until every caller has left RunPolicy; no run
// may start once destruction has begun.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "host/clock.h"
#include "qv/policy_runner.h"

namespace host {

class PolicyRunner final : public EnterpriseIntegration::IRunPolicy, private Clock::Listener {
public:
    struct MethodRun {
        std::wstring plugin;
        std::wstring method;
        Json::Value params;   // null when the request gave none
        bool preset = false;  // what the agent's QueryMethodValue answered
        int32_t presetValue = 0;
        int32_t result = 0;
    };
    struct Run {
        std::wstring caller;
        std::wstring requestText;
        Json::Value request;  // null when the text does not parse
        bool refused = false;
        std::vector<MethodRun> methods;  // empty for a refused run
        int32_t status = 0;
    };
    using RunSink = std::function<void(const Run&)>;

    // Delays follow `clock`, which must outlive the runner.
    explicit PolicyRunner(Clock& clock);
    ~PolicyRunner();
    PolicyRunner(const PolicyRunner&) = delete;
    PolicyRunner& operator=(const PolicyRunner&) = delete;

    // From now on plug-in `plugin`'s method `method` answers `result` after
    // `delay` (by the runner's clock). Replaces an earlier setting.
    void SetResult(const std::wstring& plugin, const std::wstring& method, int32_t result,
                   std::chrono::milliseconds delay = std::chrono::milliseconds(0));
    // From now on a run that is not refused answers `text` as its response
    // instead of its results (a policy runner whose answer does not parse);
    // nullopt goes back to the results.
    void SetResponseText(std::optional<std::wstring> text);
    // Told of each finished run (refused ones too), on the thread that ran it.
    void SetRunSink(RunSink sink);

    // Every finished run, in the order they finished.
    std::vector<Run> Runs() const;
    // Methods currently waiting for their delay to pass.
    size_t WaitingMethods() const;

    void* QueryInterface(const GUID& iid) override;
    int32_t RunPolicy(const wchar_t* request, std::wstring& response, int32_t flags, Json::Value& details,
                      const wchar_t* caller, EnterpriseIntegration::RunPolicyAgent* agent) override;

private:
    struct Setting {
        int32_t result = 0;
        std::chrono::milliseconds delay{0};
    };
    using Key = std::pair<std::wstring, std::wstring>;

    void OnTimeMoved() override;
    // Blocks until `delay` has passed by the clock; false when the runner is
    // being destroyed first.
    bool Sleep(std::chrono::milliseconds delay);
    // Fills run.methods from run.request; false when the request is malformed.
    static bool ParseMethods(Run& run);
    void Finish(Run run);

    Clock& clock_;

    mutable std::mutex mutex_;  // settings, runs and sink
    std::map<Key, Setting> settings_;
    std::optional<std::wstring> responseText_;
    std::vector<Run> runs_;
    RunSink sink_;

    mutable std::mutex sleepMutex_;  // sleepers, callers and their wake-ups
    std::condition_variable timeMoved_;
    std::condition_variable callerLeft_;
    size_t sleeping_ = 0;
    size_t callers_ = 0;    // inside RunPolicy
    bool closing_ = false;  // being destroyed
};

}  // namespace host
