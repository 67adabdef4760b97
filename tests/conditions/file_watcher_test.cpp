// The watcher shared by file conditions, on real folders: it notices paths
// appearing and vanishing through the system's change reports (or polling
// where it cannot watch), looks at nothing while nothing changes, keeps a
// slow check from holding up the others, bounds its threads, and never calls
// a client once Unregister has returned.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "conditions/file_watcher.h"
#include "os/file_io.h"
#include "os/file_system.h"
#include "os/file_watch.h"
#include "os/process_info.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace condition_testing {
namespace {

using Product::Integration::ConditionManager::FileWatcher;
using testing_support::Eventually;
using testing_support::TempDir;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A flip is due within about 100 ms; allow for a slow machine.
constexpr auto kPatience = 3s;

// Keeps its own answer, as a condition does, and records each flip.
class FlipRecorder final : public FileWatcher::Client {
public:
    explicit FlipRecorder(bool exists = false) : exists_(exists) {}

    void OnChecked(bool exists) override {
        std::lock_guard lock(mutex_);
        ++calls_;
        if (exists == exists_) return;
        exists_ = exists;
        flips_.push_back(exists);
        changed_.notify_all();
    }
    std::vector<bool> Flips() const {
        std::lock_guard lock(mutex_);
        return flips_;
    }
    bool WaitForFlips(size_t count, std::chrono::milliseconds patience = kPatience) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return flips_.size() >= count; });
    }
    int Calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool exists_;
    std::vector<bool> flips_;
    int calls_ = 0;
};

// The real check, counted per path.
class CountingCheck {
public:
    FileWatcher::ExistenceCheck Function() {
        return [this](const std::wstring& path) {
            {
                std::lock_guard lock(mutex_);
                ++counts_[path];
            }
            return os::PathExists(path);
        };
    }
    int Total() const {
        std::lock_guard lock(mutex_);
        int total = 0;
        for (const auto& [path, count] : counts_) total += count;
        return total;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::wstring, int> counts_;
};

void CreateFile(const std::wstring& path) { ASSERT_TRUE(os::OpenFile(path, L"wb")); }

// Returns once the watcher has dealt with every earlier change in `dir`: a
// sentinel path changed after them is reported, queued and checked after
// them. Its third flip comes from a check queued after a whole round of
// polling that began after the changes (the first may come from its own
// first check, the second from a round that was already under way). So a
// wrong call that merely comes late lands before the test looks, where a
// fixed wait would miss it on a slow machine.
void WaitUntilSettled(FileWatcher& watcher, const TempDir& dir) {
    const std::wstring path = dir.File(L"settle-sentinel");
    FlipRecorder sentinel;
    ASSERT_TRUE(watcher.Register(&sentinel, path));
    CreateFile(path);
    ASSERT_TRUE(sentinel.WaitForFlips(1));
    fs::remove(fs::path(path));
    ASSERT_TRUE(sentinel.WaitForFlips(2));
    CreateFile(path);
    ASSERT_TRUE(sentinel.WaitForFlips(3));
    watcher.Unregister(&sentinel);
    fs::remove(fs::path(path));  // ready for the next time
}

FileWatcher::Options Polling() {
    FileWatcher::Options options;
    options.watching = FileWatcher::Watching::kPollOnly;
    return options;
}

// The watcher either watches or, where it cannot, polls; both must see the
// same changes.
class EitherWay : public testing::TestWithParam<FileWatcher::Watching> {
protected:
    FileWatcher::Options Options() const {
        FileWatcher::Options options;
        options.watching = GetParam();
        return options;
    }
};

// Files and a directory appear and vanish among many paths of one folder;
// only the paths concerned flip, once each way, and paths shared by several
// clients are looked at for each of them.
TEST_P(EitherWay, SeesPathsAppearAndVanishInOneFolder) {
    TempDir dir;
    FileWatcher watcher(Options());
    constexpr int kPaths = 20;
    std::vector<std::unique_ptr<FlipRecorder>> clients;
    for (int i = 0; i < kPaths; ++i) {
        clients.push_back(std::make_unique<FlipRecorder>());
        ASSERT_TRUE(watcher.Register(clients.back().get(), dir.File(L"f" + std::to_wstring(i))));
    }
    FlipRecorder twin;
    ASSERT_TRUE(watcher.Register(&twin, dir.File(L"f7")));
    EXPECT_FALSE(watcher.Register(&twin, dir.File(L"f8")));
    if (GetParam() == FileWatcher::Watching::kSystem) {
        EXPECT_EQ(watcher.PolledPathCount(), 0u);
    } else if (GetParam() == FileWatcher::Watching::kPollOnly) {
        EXPECT_EQ(watcher.PolledPathCount(), static_cast<size_t>(kPaths));
        EXPECT_EQ(watcher.WatchedFolderCount(), 0u);
    }

    CreateFile(dir.File(L"f7"));
    fs::create_directory(fs::path(dir.File(L"f3")));
    ASSERT_TRUE(clients[7]->WaitForFlips(1));
    ASSERT_TRUE(twin.WaitForFlips(1));
    ASSERT_TRUE(clients[3]->WaitForFlips(1));
    fs::remove(fs::path(dir.File(L"f7")));
    fs::remove(fs::path(dir.File(L"f3")));
    ASSERT_TRUE(clients[7]->WaitForFlips(2));
    ASSERT_TRUE(twin.WaitForFlips(2));
    ASSERT_TRUE(clients[3]->WaitForFlips(2));
    ASSERT_NO_FATAL_FAILURE(WaitUntilSettled(watcher, dir));
    for (int i = 0; i < kPaths; ++i) {
        const bool changed = i == 3 || i == 7;
        EXPECT_EQ(clients[static_cast<size_t>(i)]->Flips(),
                  changed ? std::vector<bool>({true, false}) : std::vector<bool>{})
            << i;
    }
    EXPECT_EQ(twin.Flips(), (std::vector<bool>{true, false}));
    for (auto& client : clients) watcher.Unregister(client.get());
    watcher.Unregister(&twin);
    EXPECT_EQ(watcher.ClientCount(), 0u);
}

// A path whose folders do not exist yet flips when they are made and the
// file created, and back when they are removed or renamed away; each time
// the watches have to move down or up the path.
TEST_P(EitherWay, FollowsFoldersThatAppearVanishAndMove) {
    TempDir dir;
    if (GetParam() == FileWatcher::Watching::kSystem && os::kWatchHoldsFolders)
        GTEST_SKIP() << "a watched folder cannot be deleted with the tree above it while watched";
    FileWatcher watcher(Options());
    const fs::path top = fs::path(dir.File(L"a"));
    const fs::path file = top / "b" / "c" / "file";
    FlipRecorder client;
    ASSERT_TRUE(watcher.Register(&client, file.wstring()));

    fs::create_directory(top);
    fs::create_directory(top / "b");
    fs::create_directory(top / "b" / "c");
    CreateFile(file.wstring());
    ASSERT_TRUE(client.WaitForFlips(1));
    fs::remove_all(top);
    ASSERT_TRUE(client.WaitForFlips(2));

    // Made again at once, as one tree, then moved away and back.
    fs::create_directories(file.parent_path());
    CreateFile(file.wstring());
    ASSERT_TRUE(client.WaitForFlips(3));
    const fs::path moved = fs::path(dir.File(L"moved"));
    fs::rename(top, moved);
    ASSERT_TRUE(client.WaitForFlips(4));
    fs::rename(moved, top);
    ASSERT_TRUE(client.WaitForFlips(5));
    ASSERT_NO_FATAL_FAILURE(WaitUntilSettled(watcher, dir));
    EXPECT_EQ(client.Flips(), (std::vector<bool>{true, false, true, false, true}));
    watcher.Unregister(&client);
}

INSTANTIATE_TEST_SUITE_P(FileWatcher, EitherWay,
                         testing::Values(FileWatcher::Watching::kSystem, FileWatcher::Watching::kPollOnly),
                         [](const auto& tested) {
                             return tested.param == FileWatcher::Watching::kSystem ? "Watching" : "Polling";
                         });

// Watched paths cost nothing while nothing changes: after the first look at
// each, no check runs at all.
TEST(FileWatcher, LooksAtNothingWhileNothingChanges) {
    TempDir dir;
    CountingCheck counting;
    FileWatcher::Options options;
    options.check = counting.Function();
    options.watching = FileWatcher::Watching::kSystem;
    FileWatcher watcher(options);
    constexpr int kPaths = 10;
    std::vector<std::unique_ptr<FlipRecorder>> clients;
    fs::create_directory(fs::path(dir.File(L"sub")));
    CreateFile(dir.File(L"f0"));
    for (int i = 0; i < kPaths; ++i) {
        clients.push_back(std::make_unique<FlipRecorder>());
        const std::wstring name = L"f" + std::to_wstring(i);
        ASSERT_TRUE(watcher.Register(clients.back().get(), i % 2 ? dir.File(name) : dir.File(L"sub/" + name)));
    }
    ASSERT_TRUE(Eventually([&] { return counting.Total() >= kPaths; }));
    if (watcher.PolledPathCount() > 0) GTEST_SKIP() << "the system does not report changes here";
    std::this_thread::sleep_for(100ms);
    const int settled = counting.Total();
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(counting.Total(), settled);
    for (auto& client : clients) watcher.Unregister(client.get());
}

// One path whose check hangs (an unreachable share) holds up no other path:
// another path's change is seen while that check still runs.
TEST_P(EitherWay, ASlowCheckDoesNotHoldUpOtherPaths) {
    TempDir dir;
    const std::wstring slowPath = dir.File(L"slow"), fastPath = dir.File(L"fast");
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    std::atomic<int> slowChecksRunning{0};
    FileWatcher::Options options = Options();
    options.check = [&](const std::wstring& path) {
        if (path == slowPath) {
            ++slowChecksRunning;
            std::unique_lock lock(mutex);
            released.wait_for(lock, 10s, [&] { return release; });
            --slowChecksRunning;
        }
        return os::PathExists(path);
    };
    FileWatcher watcher(options);
    FlipRecorder slow, fast;
    ASSERT_TRUE(watcher.Register(&slow, slowPath));
    ASSERT_TRUE(Eventually([&] { return slowChecksRunning > 0; }));
    ASSERT_TRUE(watcher.Register(&fast, fastPath));
    CreateFile(fastPath);
    EXPECT_TRUE(fast.WaitForFlips(1));
    EXPECT_GT(slowChecksRunning, 0);
    EXPECT_LE(watcher.ThreadCount(), 3u);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    watcher.Unregister(&slow);
    watcher.Unregister(&fast);
    EXPECT_EQ(watcher.ThreadCount(), 0u);
}

// Paths that cannot be watched are polled even while watching works.
TEST(FileWatcher, PollsARelativePath) {
    FileWatcher::Options options;
    options.watching = FileWatcher::Watching::kSystem;
    FileWatcher watcher(options);
    FlipRecorder client;
    ASSERT_TRUE(watcher.Register(&client, L"relative-file-that-does-not-exist"));
    EXPECT_EQ(watcher.PolledPathCount(), 1u);
    EXPECT_EQ(watcher.WatchedFolderCount(), 0u);
    EXPECT_TRUE(Eventually([&] { return client.Calls() >= 3; }));
    watcher.Unregister(&client);
}

// Many clients use the watcher thread and at most two check lanes; at rest
// only the watcher thread is left, and no thread once the last client left.
TEST(FileWatcher, BoundsItsThreadsAndEndsThemWithTheLastClient) {
    TempDir dir;
    std::thread([] {}).join();  // a first thread may start a helper of the runtime
    const size_t threadsBefore = os::ProcessThreadCount();
    FileWatcher::Options options;
    options.laneIdle = 50ms;
    FileWatcher watcher(options);
    EXPECT_EQ(watcher.ThreadCount(), 0u);
    std::vector<std::unique_ptr<FlipRecorder>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<FlipRecorder>());
        ASSERT_TRUE(watcher.Register(clients.back().get(), dir.File(L"f" + std::to_wstring(i))));
        EXPECT_LE(watcher.ThreadCount(), 3u);
    }
    CreateFile(dir.File(L"f50"));
    ASSERT_TRUE(clients[50]->WaitForFlips(1));
    EXPECT_LE(watcher.ThreadCount(), 3u);
    if (watcher.PolledPathCount() == 0) {
        EXPECT_TRUE(Eventually([&] { return watcher.ThreadCount() == 1; }));
    }
    for (auto& client : clients) watcher.Unregister(client.get());
    EXPECT_EQ(watcher.ThreadCount(), 0u);
    EXPECT_TRUE(Eventually([&] { return os::ProcessThreadCount() == threadsBefore; }));
}

// Unregister waits for a call to that client in progress, and afterwards the
// client is not called again.
TEST(FileWatcher, UnregisterWaitsForACallInProgress) {
    FileWatcher watcher(Polling());
    TempDir dir;
    struct Blocking final : FileWatcher::Client {
        void OnChecked(bool) override {
            ++calls;
            if (calls == 1) {
                entered.set_value();
                released.wait();
            }
        }
        std::atomic<int> calls{0};
        std::promise<void> entered;
        std::shared_future<void> released;
    } client;
    std::promise<void> release;
    client.released = release.get_future().share();
    ASSERT_TRUE(watcher.Register(&client, dir.File(L"x")));
    client.entered.get_future().wait();
    std::atomic<bool> unregistered{false};
    std::thread other([&] {
        watcher.Unregister(&client);
        unregistered = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(unregistered);
    release.set_value();
    other.join();
    const int calls = client.calls;
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(client.calls, calls);
    EXPECT_EQ(watcher.ThreadCount(), 0u);
}

// From inside its own OnChecked a client unregisters itself and another
// client without waiting for itself; the watcher still serves new clients.
TEST(FileWatcher, UnregisterFromInsideOnCheckedDoesNotWaitForItself) {
    FileWatcher watcher(Polling());
    TempDir dir;
    FlipRecorder other;
    struct Leaving final : FileWatcher::Client {
        void OnChecked(bool) override {
            ++calls;
            watcher->Unregister(other);
            watcher->Unregister(this);
        }
        FileWatcher* watcher = nullptr;
        FileWatcher::Client* other = nullptr;
        std::atomic<int> calls{0};
    } self;
    self.watcher = &watcher;
    self.other = &other;
    ASSERT_TRUE(watcher.Register(&other, dir.File(L"other")));
    ASSERT_TRUE(watcher.Register(&self, dir.File(L"self")));
    EXPECT_TRUE(Eventually([&] { return watcher.ThreadCount() == 0; }));
    const int otherCalls = other.Calls();
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(self.calls, 1);
    EXPECT_EQ(other.Calls(), otherCalls);
    EXPECT_EQ(watcher.ClientCount(), 0u);
    FlipRecorder late;
    ASSERT_TRUE(watcher.Register(&late, dir.File(L"late")));
    EXPECT_TRUE(Eventually([&] { return late.Calls() > 0; }));
    watcher.Unregister(&late);
}

}  // namespace
}  // namespace condition_testing
