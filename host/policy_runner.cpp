#include "host/policy_runner.h"

#include <memory>
#include <optional>

#include <json/reader.h>
#include <json/writer.h>

#include "os/utf8.h"
#include "qv/status.h"

namespace host {
namespace {

std::string Narrow(const std::wstring& text) { return os::WideToUtf8Lossy(text); }

// The wide form of a JSON string member, or null when it is missing, not a
// string, empty or not UTF-8.
std::optional<std::wstring> NameMember(const Json::Value& object, const char* key) {
    const Json::Value& member = object[key];
    if (!member.isString()) return std::nullopt;
    std::optional<std::wstring> name = os::Utf8ToWide(member.asString());
    if (!name || name->empty()) return std::nullopt;
    return name;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

}  // namespace

PolicyRunner::PolicyRunner(Clock& clock) : clock_(clock) { clock_.AddListener(this); }

PolicyRunner::~PolicyRunner() {
    std::unique_lock lock(sleepMutex_);
    closing_ = true;
    timeMoved_.notify_all();
    callerLeft_.wait(lock, [this] { return callers_ == 0; });
    lock.unlock();
    clock_.RemoveListener(this);
}

void PolicyRunner::SetResult(const std::wstring& plugin, const std::wstring& method, int32_t result,
                             std::chrono::milliseconds delay) {
    std::lock_guard lock(mutex_);
    settings_[{plugin, method}] = Setting{result, delay};
}

void PolicyRunner::SetResponseText(std::optional<std::wstring> text) {
    std::lock_guard lock(mutex_);
    responseText_ = std::move(text);
}

void PolicyRunner::SetRunSink(RunSink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

std::vector<PolicyRunner::Run> PolicyRunner::Runs() const {
    std::lock_guard lock(mutex_);
    return runs_;
}

size_t PolicyRunner::WaitingMethods() const {
    std::lock_guard lock(sleepMutex_);
    return sleeping_;
}

void* PolicyRunner::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IRunPolicy::iid))
        return static_cast<IRunPolicy*>(this);
    return nullptr;
}

int32_t PolicyRunner::RunPolicy(const wchar_t* request, std::wstring& response, int32_t /*flags*/, Json::Value& details,
                                const wchar_t* caller, EnterpriseIntegration::RunPolicyAgent* agent) {
    // Counts this call as inside until it returns, for the destructor.
    struct Inside {
        PolicyRunner& runner;
        explicit Inside(PolicyRunner& r) : runner(r) {
            std::lock_guard lock(runner.sleepMutex_);
            ++runner.callers_;
        }
        ~Inside() {
            std::lock_guard lock(runner.sleepMutex_);
            if (--runner.callers_ == 0) runner.callerLeft_.notify_all();
        }
    } inside(*this);
    Run run;
    run.caller = caller ? caller : L"";
    run.requestText = request ? request : L"";
    response.clear();
    details = Json::Value();

    if (!request || !ParseMethods(run)) {
        run.refused = true;
        run.methods.clear();
        run.status = qv::status::kInvalidParameter;
        Finish(std::move(run));
        return qv::status::kInvalidParameter;
    }

    Json::Value results(Json::arrayValue);
    for (MethodRun& method : run.methods) {
        if (agent) method.preset = agent->QueryMethodValue(method.plugin, method.method, method.presetValue);
        Setting setting;
        {
            std::lock_guard lock(mutex_);
            if (auto it = settings_.find({method.plugin, method.method}); it != settings_.end()) setting = it->second;
        }
        if (!Sleep(setting.delay)) {
            // The host is going away: the run ends here.
            run.status = qv::status::kOperationAborted;
            Finish(std::move(run));
            return qv::status::kOperationAborted;
        }
        method.result = setting.result;
        if (agent) agent->OnAfterRunPolicy(method.plugin, method.method, method.result);
        if (run.status == 0) run.status = method.result;

        Json::Value entry(Json::objectValue);
        entry["plugin"] = Narrow(method.plugin);
        entry["method"] = Narrow(method.method);
        entry["result"] = method.result;
        if (method.preset) entry["preset"] = method.presetValue;
        results.append(std::move(entry));
    }

    Json::Value body(Json::objectValue);
    body["results"] = std::move(results);
    response = os::Utf8ToWideLossy(Compact(body));
    {
        std::lock_guard lock(mutex_);
        if (responseText_) response = *responseText_;
    }
    details["caller"] = Narrow(run.caller);
    const int32_t status = run.status;
    Finish(std::move(run));
    return status;
}

bool PolicyRunner::ParseMethods(Run& run) {
    const std::optional<std::string> text = os::WideToUtf8(run.requestText);
    if (!text) return false;
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text->data(), text->data() + text->size(), &root, &errors)) return false;
    run.request = root;

    if (!root.isObject()) return false;
    const Json::Value& methods = root["methods"];
    if (!methods.isArray()) return false;
    for (const Json::Value& entry : methods) {
        if (!entry.isObject()) return false;
        std::optional<std::wstring> plugin = NameMember(entry, "plugin");
        std::optional<std::wstring> method = NameMember(entry, "method");
        if (!plugin || !method) return false;
        MethodRun methodRun;
        methodRun.plugin = std::move(*plugin);
        methodRun.method = std::move(*method);
        if (entry.isMember("params")) methodRun.params = entry["params"];
        run.methods.push_back(std::move(methodRun));
    }
    return true;
}

void PolicyRunner::Finish(Run run) {
    RunSink sink;
    {
        std::lock_guard lock(mutex_);
        runs_.push_back(run);
        sink = sink_;
    }
    if (sink) sink(run);
}

bool PolicyRunner::Sleep(std::chrono::milliseconds delay) {
    std::unique_lock lock(sleepMutex_);
    if (delay.count() <= 0) return !closing_;
    const auto due = clock_.Now() + delay;
    ++sleeping_;
    while (!closing_ && clock_.Now() < due) clock_.WaitUntil(timeMoved_, lock, due);
    --sleeping_;
    return !closing_;
}

void PolicyRunner::OnTimeMoved() {
    // Taking the sleepers' mutex first means a sleeper is either before its
    // check of the time (and sees the new one) or already waiting (and woken).
    std::lock_guard lock(sleepMutex_);
    timeMoved_.notify_all();
}

}  // namespace host
