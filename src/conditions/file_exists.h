#pragma once
// "Test.FileExists": true while "data"."filePath" names an existing file or
// directory. The path has no change notification, so the condition polls it
// on a thread of its own every 100 ms and notifies when the answer flips.
// A change that comes and goes between two polls is not seen.
#include <cstdint>
#include <mutex>
#include <string>

#include "conditions/condition_base.h"
#include "os/worker_thread.h"

namespace Product::Integration::ConditionManager {

// Thread rules: the polling thread compares and notifies under the critical
// section, so subscribers are called on that thread with it held; GetState
// takes it too. Init starts the thread and Uninit stops and joins it; the
// destructor does the same, so the thread never outlives the object.
class ConditionFileExists final : public ConditionBase {
public:
    static constexpr const wchar_t* kType = L"Test.FileExists";
    static constexpr uint32_t kPollIntervalMs = 100;

    ~ConditionFileExists() override;

    // Reads the path (absent, not a string, empty or holding a NUL character:
    // 87, but the condition is still completed and polls the empty path,
    // which never exists), takes
    // the initial state and starts polling. 1627 when the thread cannot start.
    int Init(const InitData& data) override;
    // Signals the polling thread and waits for it to end. Idempotent.
    void Uninit() override;
    // With `recompute` tests the path again; 0.
    int GetState(bool* state, bool recompute) override;

private:
    void Poll(os::AutoResetEvent& stop);

    std::wstring filePath_;  // set by Init before the thread starts
    std::recursive_mutex lock_;
    os::WorkerThread thread_;
    bool exists_ = false;
};

}  // namespace Product::Integration::ConditionManager
