#pragma once
// "Test.FileExists": true while "data"."filePath" names an existing file or
// directory. Rather than polling the path on a thread of its own, the
// condition is told by the watcher shared by all file conditions of the
// process (file_watcher.h), which looks at the path when the system reports
// a change of its folders, or polls it every 100 ms where it cannot be
// watched (on Windows, for now, everywhere); it notifies when the answer
// flips. A change that comes and goes
// before the watcher looks may not be seen.
#include <mutex>
#include <string>

#include "conditions/condition_base.h"
#include "conditions/file_watcher.h"

namespace Product::Integration::ConditionManager {

// Thread rules: OnChecked runs on a thread of the watcher and compares and
// notifies under the critical section, so subscribers are called on that
// thread with it held; GetState takes it too. Init registers with the watcher
// and Uninit unregisters, waiting for a call of this condition in progress;
// the destructor does the same, so the watcher never touches a freed condition.
// Hence Uninit must not be called while holding a lock that a subscriber
// takes in its notification, and a subscriber must not destroy the condition
// that notifies it (it may call its Uninit, which then does not wait).
class ConditionFileExists final : public ConditionBase, private FileWatcher::Client {
public:
    static constexpr const wchar_t* kType = L"Test.FileExists";

    // Served by `watcher`, which must outlive the condition.
    explicit ConditionFileExists(FileWatcher& watcher = FileWatcher::Shared()) : watcher_(watcher) {}
    ~ConditionFileExists() override;

    // Reads the path (absent, not a string, empty or holding a NUL character:
    // kInvalidParameter, but the condition is still completed and watches the empty path,
    // which never exists), takes the initial state and starts watching. kFunctionFailed
    // when the watcher cannot start its thread.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Stops watching for this condition. Idempotent.
    void Uninit() override;
    // With `recompute` tests the path again; 0.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;
    // {"path": the path, "exists": a check made now, "how": "watched" (with
    // "folder", the deepest folder watched for it), "polled" or "never"}
    [[nodiscard]] Json::Value Observed() override;

private:
    void OnChecked(bool exists) override;

    FileWatcher& watcher_;
    std::wstring filePath_;  // set by Init before watching starts
    std::recursive_mutex lock_;
    bool exists_ = false;
};

}  // namespace Product::Integration::ConditionManager
