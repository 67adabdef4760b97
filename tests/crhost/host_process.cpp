#include "host_process.h"

#include <chrono>

#include <gtest/gtest.h>

#include <json/reader.h>
#include <json/writer.h>

#include "os/module.h"
#include "os/path.h"
#include "os/utf8.h"

namespace crhost_test {

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::vector<std::wstring> StateAndLogIn(const testing_support::TempDir& dir) {
    return {L"--state", dir.File(L"state.json"), L"--log", dir.File(L"log.txt")};
}

Json::Value Parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        ADD_FAILURE() << "bad test JSON: " << errors << text;
    return value;
}

HostProcess::Predicate IsEvent() {
    return [](const Json::Value& line) { return line.isMember("event"); };
}

HostProcess::Predicate IsPolicyRun() {
    return [](const Json::Value& line) { return line.isMember("policyRun"); };
}

HostProcess::HostProcess(const std::vector<std::wstring>& arguments, const std::wstring& workingDirectory,
                         const std::wstring& chosenProgram) {
    // An absolute path, which holds in the child's working directory too.
    const std::wstring program =
        !chosenProgram.empty() ? chosenProgram
                               : os::JoinPath(os::DirectoryOf(os::ProgramPath()), os::ExecutableFileName(L"cr-host"));
    // Under Wine, starting a process fails now and then with an internal
    // error (1359) while other processes start; a real failure (a missing
    // program, say) fails every attempt.
    for (int attempt = 0; attempt < 5 && !process_; ++attempt) {
        if (attempt) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        os::Expected<std::unique_ptr<os::ChildProcess>> started =
            os::ChildProcess::Start(program, arguments, workingDirectory);
        if (started) {
            process_ = std::move(*started);
        } else {
            startError_ = started.status().message();
        }
    }
    if (!process_) return;
    outputReader_ = std::thread([this] { ReadOutput(); });
    errorReader_ = std::thread([this] { ReadError(); });
}

HostProcess::~HostProcess() {
    if (!process_) return;
    process_->CloseInput();
    if (!process_->Wait(static_cast<uint32_t>(testing_support::kPatience.count()))) process_->Kill();
    static_cast<void>(process_->Wait(0xFFFFFFFFu));
    // The pipes end with the process, and with them the readers.
    outputReader_.join();
    errorReader_.join();
}

void HostProcess::ReadOutput() {
    std::string pending;
    char buffer[65536];
    for (;;) {
        const size_t got = process_->Read(os::ChildProcess::Stream::kOutput, buffer, sizeof buffer);
        if (got == 0) break;
        pending.append(buffer, got);
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            const std::string line = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            Json::CharReaderBuilder builder;
            const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
            Json::Value value;
            std::string errors;
            const bool parsed = reader->parse(line.data(), line.data() + line.size(), &value, &errors);
            std::lock_guard lock(mutex_);
            rawLines_.push_back(line);
            if (parsed && value.isObject())
                lines_.push_back(std::move(value));
            else
                badLines_.push_back(line);
            changed_.notify_all();
        }
    }
    std::lock_guard lock(mutex_);
    if (!pending.empty()) badLines_.push_back(pending);  // a line without its newline
    changed_.notify_all();
}

void HostProcess::ReadError() {
    char buffer[4096];
    for (;;) {
        const size_t got = process_->Read(os::ChildProcess::Stream::kError, buffer, sizeof buffer);
        if (got == 0) return;
        std::lock_guard lock(mutex_);
        errorText_.append(buffer, got);
    }
}

bool HostProcess::Send(const std::string& text) { return process_ && process_->Write(text + "\n"); }

Json::Value HostProcess::Method(const std::string& method, const Json::Value& request) {
    const int64_t id = nextId_++;
    Json::Value line(Json::objectValue);
    line["id"] = Json::Int64(id);
    line["method"] = method;
    if (!request.isNull()) line["request"] = request;
    EXPECT_TRUE(Send(Compact(line)));
    const auto answer = WaitFor([&](const Json::Value& out) { return out["id"] == Json::Int64(id); });
    EXPECT_TRUE(answer) << "no answer to " << method << "; standard error: " << ErrorText();
    return answer.value_or(Json::Value());
}

Json::Value HostProcess::Host(Json::Value action) {
    const int64_t id = nextId_++;
    action["id"] = Json::Int64(id);
    EXPECT_TRUE(Send(Compact(action)));
    const auto answer = WaitFor([&](const Json::Value& out) { return out["id"] == Json::Int64(id); });
    EXPECT_TRUE(answer) << "no answer to " << Compact(action) << "; standard error: " << ErrorText();
    return answer.value_or(Json::Value());
}

std::optional<Json::Value> HostProcess::WaitFor(const Predicate& predicate, size_t from,
                                                std::chrono::milliseconds patience, size_t* index) {
    std::unique_lock lock(mutex_);
    size_t next = from;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        for (; next < lines_.size(); ++next) {
            if (predicate(lines_[next])) {
                if (index) *index = next;
                return lines_[next];
            }
        }
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout && next == lines_.size())
            return std::nullopt;
    }
}

std::vector<Json::Value> HostProcess::Lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> HostProcess::BadLines() const {
    std::lock_guard lock(mutex_);
    return badLines_;
}

std::vector<std::string> HostProcess::RawLines() const {
    std::lock_guard lock(mutex_);
    return rawLines_;
}

std::string HostProcess::ErrorText() const {
    std::lock_guard lock(mutex_);
    return errorText_;
}

std::optional<int> HostProcess::Finish(std::chrono::milliseconds patience) {
    if (!process_) return std::nullopt;
    process_->CloseInput();
    return process_->Wait(static_cast<uint32_t>(patience.count()));
}

}  // namespace crhost_test
