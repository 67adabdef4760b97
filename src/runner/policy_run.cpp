#include "runner/policy_run.h"

#include <atomic>
#include <system_error>
#include <thread>

#include "os/module.h"
#include "os/thread_name.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kRunMethod = L"ConditionalRunnerAL::RunMethod";
// An address inside this module, to name the module that must stay mapped.
constexpr char kInThisModule = 0;
}  // namespace

struct PolicyRun::Shared {
    struct Run {
        explicit Run(std::wstring text) : request(std::move(text)) {}
        const std::wstring request;
        std::wstring response;
        Json::Value details;
        int32_t status = 0;
        ConditionalRunnerRunPolicyAgent agent;
    };

    EnterpriseIntegration::IRunPolicy& runner;
    const wchar_t* const caller;  // a static text
    std::vector<Run> runs;
    os::AutoResetEvent done;
    std::atomic<bool> givenUp{false};

    Shared(EnterpriseIntegration::IRunPolicy& r, std::vector<std::wstring> requests, const wchar_t* c)
        : runner(r), caller(c) {
        runs.reserve(requests.size());
        for (std::wstring& request : requests) runs.emplace_back(std::move(request));
    }

    // Runs the requests in order until one returns after the waiter gave up.
    void RunAll() {
        for (Run& run : runs) {
            if (givenUp) return;
            run.status = runner.RunPolicy(run.request.c_str(), run.response, 0, run.details, caller, &run.agent);
            if (givenUp) {
                logging::Log(logging::kWarning, kRunMethod,
                             L"A method-set run returned after the runner stopped waiting for it [%d]", run.status);
                return;
            }
        }
        done.Set();
    }
};

PolicyRun::PolicyRun(EnterpriseIntegration::IRunPolicy& runner, std::vector<std::wstring> requests,
                     const wchar_t* caller)
    : shared_(std::make_shared<Shared>(runner, std::move(requests), caller)) {
    try {
        std::thread([shared = shared_] {
            os::SetCurrentThreadName("cr:policy-run");
            shared->RunAll();
        }).detach();
    } catch (const std::system_error&) {
        // No thread to spare: the runs cannot be given up, but they still run.
        shared_->RunAll();
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
    // The runs may have returned meanwhile; either way they are not waited for.
    static_cast<void>(os::PinModuleOf(&kInThisModule));  // refused only for a program, never unloaded anyway
    return Outcome::kGivenUp;
}

int32_t PolicyRun::status(size_t i) const noexcept { return shared_->runs[i].status; }
const std::wstring& PolicyRun::response(size_t i) const noexcept { return shared_->runs[i].response; }
Json::Value& PolicyRun::details(size_t i) noexcept { return shared_->runs[i].details; }
const ConditionalRunnerRunPolicyAgent& PolicyRun::agent(size_t i) const noexcept { return shared_->runs[i].agent; }

}  // namespace Product::Integration::ConditionalRunner
