#pragma once
// cr-host started as a separate process, driven over its standard input and
// output as a script or a person drives it. Every output line is kept,
// parsed; the test waits for the lines it expects with bounded patience.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "os/child_process.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace crhost_test {

class HostProcess {
public:
    using Predicate = std::function<bool(const Json::Value&)>;

    // Starts `program` (the cr-host built beside the test program when
    // empty) with `arguments`, in `workingDirectory` (the test's own when empty).
    explicit HostProcess(const std::vector<std::wstring>& arguments, const std::wstring& workingDirectory = L"",
                         const std::wstring& program = L"");
    // Closes its input and waits for it to end (killing it after a while).
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    bool Started() const { return process_ != nullptr; }
    const std::wstring& startError() const { return startError_; }
    os::ChildProcess& process() { return *process_; }

    // Writes `text` and a newline to the host's input.
    bool Send(const std::string& text);
    // Sends {"id": n, "method": method, "request": request} (without
    // "request" when it is null) and waits for the answer with that id.
    Json::Value Method(const std::string& method, const Json::Value& request = Json::Value(Json::objectValue));
    // Sends `action` (an object with "host") with a new id and waits for its answer.
    Json::Value Host(Json::Value action);

    // The first output line from `from` on that satisfies `predicate`,
    // waiting up to `patience`; its index in Lines() goes to `index`.
    std::optional<Json::Value> WaitFor(const Predicate& predicate, size_t from = 0,
                                       std::chrono::milliseconds patience = testing_support::kPatience,
                                       size_t* index = nullptr);
    // Every output line so far, in order.
    std::vector<Json::Value> Lines() const;
    // Output lines that were not JSON objects (there must be none).
    std::vector<std::string> BadLines() const;
    // Every output line so far as the host wrote it, without its newline.
    std::vector<std::string> RawLines() const;
    // What the host wrote to its standard error so far.
    std::string ErrorText() const;

    // Closes the input and waits for the exit status.
    std::optional<int> Finish(std::chrono::milliseconds patience = testing_support::kPatience);

private:
    void ReadOutput();
    void ReadError();

    std::unique_ptr<os::ChildProcess> process_;
    std::wstring startError_;
    int64_t nextId_ = 1;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Json::Value> lines_;
    std::vector<std::string> badLines_;
    std::vector<std::string> rawLines_;
    std::string errorText_;
    std::thread outputReader_;
    std::thread errorReader_;
};

// Matchers for WaitFor.
HostProcess::Predicate IsEvent();
HostProcess::Predicate IsPolicyRun();

// The test's JSON written inline; a malformed text fails the test.
Json::Value Parse(const std::string& text);
// `value` on one line, as the console reads it.
std::string Compact(const Json::Value& value);
// cr-host's arguments for a state file and a log in `dir`.
std::vector<std::wstring> StateAndLogIn(const testing_support::TempDir& dir);

}  // namespace crhost_test
