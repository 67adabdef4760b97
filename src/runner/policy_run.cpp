#include "runner/policy_run.h"

#include <atomic>
#include <system_error>
#include <thread>

#include "os/module.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kRunMethod = L"ConditionalRunnerAL::RunMethod";
// An address inside this module, to name the module that must stay mapped.
constexpr char kInThisModule = 0;
}  // namespace

struct PolicyRun::Shared {
    EnterpriseIntegration::IRunPolicy& runner;
    const std::wstring request;
    const wchar_t* const caller;  // a static text
    std::wstring response;
    Json::Value details;
    int32_t status = 0;
    ConditionalRunnerRunPolicyAgent agent;
    os::AutoResetEvent done;
    std::atomic<bool> givenUp{false};

    Shared(EnterpriseIntegration::IRunPolicy& r, std::wstring text, const wchar_t* c)
        : runner(r), request(std::move(text)), caller(c) {}

    void Run() { status = runner.RunPolicy(request.c_str(), response, 0, details, caller, &agent); }
};

PolicyRun::PolicyRun(EnterpriseIntegration::IRunPolicy& runner, std::wstring request, const wchar_t* caller)
    : shared_(std::make_shared<Shared>(runner, std::move(request), caller)) {
    try {
        std::thread([shared = shared_] {
            shared->Run();
            if (shared->givenUp)
                logging::Log(logging::kWarning, kRunMethod,
                             L"A method-set run returned after the runner stopped waiting for it [%d]", shared->status);
            else
                shared->done.Set();
        }).detach();
    } catch (const std::system_error&) {
        // No thread to spare: the run cannot be given up, but it still runs.
        shared_->Run();
        shared_->done.Set();
    }
}

PolicyRun::~PolicyRun() = default;

PolicyRun::Outcome PolicyRun::Wait(os::AutoResetEvent& giveUp) {
    for (;;) {
        const int woken = os::WaitAny({&shared_->done, &giveUp}, os::kInfinite);
        if (woken == 0) return Outcome::kFinished;
        if (woken == 1) break;
        // A wait that cannot be made at all leaves nothing to wait with.
        if (woken == os::kWaitFailed) break;
    }
    shared_->givenUp = true;
    // The run may have returned meanwhile; either way it is not waited for.
    static_cast<void>(os::PinModuleOf(&kInThisModule));  // refused only for a program, never unloaded anyway
    return Outcome::kGivenUp;
}

int32_t PolicyRun::status() const noexcept { return shared_->status; }
const std::wstring& PolicyRun::response() const noexcept { return shared_->response; }
Json::Value& PolicyRun::details() noexcept { return shared_->details; }
const ConditionalRunnerRunPolicyAgent& PolicyRun::agent() const noexcept { return shared_->agent; }

}  // namespace Product::Integration::ConditionalRunner
