#pragma once
// The runner's four signals and the wall clock: what the evaluation loop
// waits on in the product.
//
// Thread rules: any thread may raise a signal at any time without blocking;
// only the evaluation thread waits.
#include <cstdint>

#include "os/event.h"
#include "runner/evaluation_loop.h"

namespace Product::Integration::ConditionalRunner {

class RunnerSignals final : public EvalWaits {
public:
    // Asks for an evaluation soon (coalesced by the loop).
    void RequestEvaluation() noexcept { eval_.Set(); }
    // Ends the loop; also wakes it from a pause.
    void RequestStop() noexcept {
        stop_.Set();
        awake_.Set();
    }
    void Pause() noexcept { pause_.Set(); }
    void Awake() noexcept { awake_.Set(); }
    // False when the system refused one of the events.
    bool Valid() const noexcept { return eval_.Valid() && stop_.Valid() && pause_.Valid() && awake_.Valid(); }

    int WaitForSignal(uint32_t timeoutMs) override;
    void WaitForAwake() override;
    int64_t NowSeconds() override;
    void Sleep(uint32_t ms) override;

private:
    os::AutoResetEvent eval_;
    os::AutoResetEvent stop_;
    os::AutoResetEvent pause_;
    os::AutoResetEvent awake_;
};

}  // namespace Product::Integration::ConditionalRunner
