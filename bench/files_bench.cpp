// The file conditions' watcher with one check that hangs: how long a change
// of another file rule's path takes to be told while a check of an
// unreachable share (1.5 s) is under way. Measured on the real file system
// (the other path is a temporary file made and removed), with the slow
// path's check replaced by a 1.5 s sleep.
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

#include "conditions/file_watcher.h"
#include "os/file_system.h"

namespace {

using Product::Integration::ConditionManager::FileWatcher;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kSlowCheck{1500};
// A relative path is polled (it cannot be watched), as a share's path is.
const std::wstring kUnreachable = L"unreachable-share/folder/file";

// Remembers the answers about one path and when each came.
class Answers final : public FileWatcher::Client {
public:
    void OnChecked(bool exists) override {
        {
            std::lock_guard lock(mutex_);
            exists_ = exists;
            at_ = Clock::now();
        }
        changed_.notify_all();
    }
    // When the path was first told to be `exists`, waiting up to 10 s.
    bool WaitFor(bool exists, Clock::time_point& at) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(10), [&] { return exists_ == exists; })) return false;
        at = at_;
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool exists_ = false;
    Clock::time_point at_;
};

void BM_OtherFileRulesWhileOneCheckHangs(benchmark::State& state) {
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("cr-bench-files-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    const std::filesystem::path other = folder / "other";
    FileWatcher::Options options;
    options.check = [](const std::wstring& path) {
        if (path == kUnreachable) {
            std::this_thread::sleep_for(kSlowCheck);
            return false;
        }
        return os::PathExists(path);
    };
    FileWatcher watcher(options);
    Answers slow, fast;
    if (!watcher.Register(&slow, kUnreachable) || !watcher.Register(&fast, other.wstring())) {
        state.SkipWithError("the watcher did not start");
        return;
    }
    for (auto _ : state) {
        // Made while the slow path's check hangs: it is polled every 100 ms.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const Clock::time_point made = Clock::now();
        { std::ofstream(other).put('x'); }
        Clock::time_point told;
        if (!fast.WaitFor(true, told)) {
            state.SkipWithError("the change was never told");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(told - made).count());
        std::filesystem::remove(other);
        fast.WaitFor(false, told);
    }
    watcher.Unregister(&fast);
    watcher.Unregister(&slow);
    std::filesystem::remove_all(folder);
}
BENCHMARK(BM_OtherFileRulesWhileOneCheckHangs)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
