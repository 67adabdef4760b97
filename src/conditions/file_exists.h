#pragma once
// "Test.FileExists": true while "data"."filePath" names an existing file or
// directory. The path has no change notification, so the condition is polled
// by the poller shared by all file conditions of the process (every 100 ms
// plus the time a pass takes) and notifies when the answer flips. A change
// that comes and goes between two polls is not seen.
#include <mutex>
#include <string>

#include "conditions/condition_base.h"
#include "conditions/file_poller.h"

namespace Product::Integration::ConditionManager {

// Thread rules: Poll runs on the poller's thread and compares and notifies
// under the critical section, so subscribers are called on that thread with
// it held; GetState takes it too. Init registers with the poller and Uninit
// unregisters, waiting for a poll of this condition in progress; the
// destructor does the same, so the poller never touches a freed condition.
// Hence Uninit must not be called while holding a lock that a subscriber
// takes in its notification, and a subscriber must not destroy the condition
// that notifies it (it may call its Uninit, which then does not wait).
class ConditionFileExists final : public ConditionBase, private FilePoller::Client {
public:
    static constexpr const wchar_t* kType = L"Test.FileExists";

    // Polled by `poller`, which must outlive the condition.
    explicit ConditionFileExists(FilePoller& poller = FilePoller::Shared()) : poller_(poller) {}
    ~ConditionFileExists() override;

    // Reads the path (absent, not a string, empty or holding a NUL character:
    // kInvalidParameter, but the condition is still completed and polls the empty path,
    // which never exists), takes the initial state and starts polling. kFunctionFailed
    // when the poller cannot start its thread.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Stops polling this condition. Idempotent.
    void Uninit() override;
    // With `recompute` tests the path again; 0.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;

private:
    void Poll() override;

    FilePoller& poller_;
    std::wstring filePath_;  // set by Init before polling starts
    std::recursive_mutex lock_;
    bool exists_ = false;
};

}  // namespace Product::Integration::ConditionManager
