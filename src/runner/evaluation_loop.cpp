#include "runner/evaluation_loop.h"

#include "plugin/call_trace.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kEvalThread = L"ConditionalRunnerAL::EvalThread";
// A short breath after each eval signal, so that a storm of signals does not
// keep the thread busy.
constexpr uint32_t kAfterSignalMs = 5;

void Note(const wchar_t* message) { logging::Log(logging::kDetail, kEvalThread, L"%s", message); }
}  // namespace

int32_t EvaluationLoop::Run() {
    logging::CallTrace trace(kEvalThread);
    for (;;) {
        switch (waits_.WaitForSignal(timeoutMs_)) {
            case EvalWaits::kStop:
                Note(L"Received stop signal");
                return 0;
            case EvalWaits::kPause:
                // Eval signals that come meanwhile stay pending, and the timeout
                // of a postponed burst is kept for the next wait.
                Note(L"Received pause signal");
                waits_.WaitForAwake();
                Note(L"Received awake signal");
                break;
            case EvalWaits::kTimeout:
                // The quiet period ended: the postponed evaluation runs.
                Note(L"Received timeout");
                firstEventTime_ = -1;
                evaluate_();
                SetTimeout(EvalWaits::kNoTimeLimit, 0);
                break;
            case EvalWaits::kEval:
                OnEval();
                waits_.Sleep(kAfterSignalMs);
                break;
            default:
                // A failed wait is tried again; the breath keeps a wait that
                // fails at once from spinning.
                waits_.Sleep(kAfterSignalMs);
                break;
        }
    }
}

void EvaluationLoop::OnEval() {
    Note(L"Received eval signal");
    const int64_t now = waits_.NowSeconds();
    const uint32_t minEvalTime = settings_.minEvalTime.load();
    const int64_t maxPostponeTime = settings_.maxPostponeTime.load();
    if (firstEventTime_ == -1) {
        Note(L"Cannot run this time; postponing first event");
        firstEventTime_ = now;
        SetTimeout(minEvalTime * 1000, now);
        return;
    }
    if (now - firstEventTime_ >= maxPostponeTime) {
        // The burst has waited long enough.
        firstEventTime_ = -1;
        evaluate_();
        SetTimeout(EvalWaits::kNoTimeLimit, 0);
        return;
    }
    Note(L"Cannot run this time; postponing");
    const int64_t remaining = maxPostponeTime - now + firstEventTime_;
    if (remaining > 0 && remaining < minEvalTime) {
        // The figure logged is the timeout in force until now, in
        // milliseconds, not the shortened one: the line has always read so.
        logging::Log(logging::kDetail, kEvalThread, L"Postponing for %i", static_cast<int>(timeoutMs_));
        SetTimeout(static_cast<uint32_t>(remaining * 1000), now);
    }
}

void EvaluationLoop::SetTimeout(uint32_t timeoutMs, int64_t now) {
    timeoutMs_ = timeoutMs;
    waits_.NoteDue(timeoutMs == EvalWaits::kNoTimeLimit ? EvalWaits::kNothingDue : now + timeoutMs / 1000);
}

}  // namespace Product::Integration::ConditionalRunner
