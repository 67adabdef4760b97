#include "conditions/file_watcher.h"

#include <algorithm>
#include <deque>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "os/file_system.h"
#include "os/file_watch.h"
#include "os/path.h"
#include "os/thread_name.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionManager {
namespace {
using Clock = std::chrono::steady_clock;
constexpr const wchar_t* kFunction = L"Product::Integration::ConditionManager::FileWatcher";
// How often the watcher looks whether a lane is stuck in a check.
constexpr std::chrono::milliseconds kRescueTick{20};

// The client whose OnChecked runs on this thread, if any.
thread_local FileWatcher::Client* clientCalledHere = nullptr;
// The run this thread serves, if it is one of the watcher's.
thread_local const void* runServedHere = nullptr;
}  // namespace

enum class FileWatcher::Role { kFast = 0, kSlow = 1 };

struct FileWatcher::Path {
    std::wstring text;
    std::optional<os::WatchablePath> split;  // none: polled
    std::vector<Client*> clients;
    std::vector<std::wstring> armed;  // the watched folders, from the root down
    bool slow = false;                // its last check took long: served by the slow lane
    bool queued = false;              // waiting for or in a check, or its answer being told
    bool started = false;             // its check has started (its answer may be old)
    bool again = false;               // asked for after its check started
    bool removed = false;             // its last client left
    bool never = false;               // the empty path: it never exists, nothing to look at

    bool Polled() const { return !split && !never; }

    // The folder at `level` below the root (0: the root).
    std::wstring FolderAt(size_t level) const {
        std::wstring folder = split->root;
        for (size_t i = 0; i < level; ++i) {
            // The root ends with a separator already.
            if (i > 0) folder += os::kPathSeparator;
            folder += split->names[i];
        }
        return folder;
    }
};

struct FileWatcher::Run : std::enable_shared_from_this<Run> {
    struct Folder {
        os::FolderWatch::Id id = 0;
        size_t level = 0;
        std::unordered_set<Path*> users;
    };
    struct Lane {
        bool alive = false;
        Role role = Role::kFast;
        Path* checking = nullptr;  // the path whose check runs, while it runs
        Clock::time_point since;
        Client* calling = nullptr;  // whose OnChecked runs
        std::thread thread;         // joined before the place is used again
    };

    std::unique_ptr<os::FolderWatch> watch;  // null: every path is polled
    bool stop = false;
    bool woken = false;        // for a watcher without a watch
    bool watcherIdle = false;  // the watcher thread waits without a time limit
    size_t threads = 0;        // started and not yet ended
    std::thread watcher;
    std::unordered_map<std::wstring, std::shared_ptr<Path>> paths;
    std::unordered_map<Client*, std::shared_ptr<Path>> clients;
    std::unordered_map<std::wstring, Folder> folders;
    std::unordered_map<os::FolderWatch::Id, std::wstring> byId;
    std::vector<std::shared_ptr<Path>> toArm;     // registered, to be armed by the watcher thread
    std::vector<os::FolderWatch::Id> toRemove;    // watches no path needs any more
    std::deque<std::shared_ptr<Path>> queues[2];  // by role
    Lane lanes[2];
    Clock::time_point nextPoll;
};

FileWatcher::Watching FileWatcher::DefaultWatching() {
    return os::kWatchHoldsFolders ? Watching::kPollOnly : Watching::kSystem;
}

FileWatcher::FileWatcher() : FileWatcher(Options{}) {}

FileWatcher::FileWatcher(Options options) : options_(std::move(options)) {}

FileWatcher::~FileWatcher() {
    std::unique_lock lock(mutex_);
    if (run_) End(lock, run_);
    // A thread that ended the last run from inside a call may be on its way out.
    changed_.wait(lock, [this] { return threads_ == 0; });
}

FileWatcher& FileWatcher::Shared() {
    // Built in static storage and never destroyed: no static destructor
    // joins threads at process exit, and nothing is left on the heap when
    // the module is unloaded (its threads end with the last client).
    alignas(FileWatcher) static unsigned char storage[sizeof(FileWatcher)];
    static FileWatcher* const shared = new (storage) FileWatcher();
    return *shared;
}

bool FileWatcher::Exists(const std::wstring& path) const {
    return options_.check ? options_.check(path) : os::PathExists(path);
}

bool FileWatcher::Register(Client* client, const std::wstring& text) {
    if (!client) return false;
    std::lock_guard lock(mutex_);
    if (run_ && run_->clients.count(client)) return false;
    if (!run_) {
        auto run = std::make_shared<Run>();
        if (options_.watching == Watching::kSystem) {
            os::Expected<std::unique_ptr<os::FolderWatch>> watch = os::FolderWatch::Open();
            if (watch) {
                run->watch = std::move(*watch);
            } else {
                logging::Log(logging::kWarning, kFunction, L"No change notifications (%s); file paths are polled",
                             watch.status().message().c_str());
            }
        }
        run->watcher = StartThread(*run, [this, run] {
            os::SetCurrentThreadName("cr:file-watch");
            Watch(run);
        });
        if (!run->watcher.joinable()) return false;
        run_ = std::move(run);
    }
    Run& run = *run_;
    std::shared_ptr<Path>& path = run.paths[text];
    if (!path) {
        path = std::make_shared<Path>();
        path->text = text;
        if (run.watch) path->split = os::SplitWatchablePath(text);
        path->never = text.empty();
        if (!path->never) run.toArm.push_back(path);
    } else {
        // Its watches are in place: one look covers a change since the
        // client's own first look.
        Enqueue(run, path);
    }
    path->clients.push_back(client);
    run.clients.emplace(client, path);
    Wake(run);
    return true;
}

void FileWatcher::Unregister(Client* client) {
    std::unique_lock lock(mutex_);
    if (!run_) return;
    const auto found = run_->clients.find(client);
    if (found == run_->clients.end()) return;
    const std::shared_ptr<Run> run = run_;
    const std::shared_ptr<Path> path = found->second;
    run->clients.erase(found);
    std::erase(path->clients, client);
    if (clientCalledHere != client) {
        changed_.wait(lock, [&] { return run->lanes[0].calling != client && run->lanes[1].calling != client; });
    }
    if (path->clients.empty() && !path->removed) {
        path->removed = true;
        run->paths.erase(path->text);
        Disarm(*run, *path, 0);
        Wake(*run);
    }
    if (!run->clients.empty()) return;
    End(lock, run);
}

// The last client left: the threads of `run` end, and are joined unless one
// of them is the caller. Called with the lock held; returns with it held.
void FileWatcher::End(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Run>& run) {
    run->stop = true;
    Wake(*run);
    if (run_ == run) run_.reset();
    changed_.notify_all();
    const size_t self = runServedHere == run.get() ? 1 : 0;
    changed_.wait(lock, [&] { return run->threads == self; });
    // Every other thread has let go of the lock for good: joining is quick.
    std::vector<std::thread> threads;
    threads.push_back(std::move(run->watcher));
    for (Run::Lane& lane : run->lanes) threads.push_back(std::move(lane.thread));
    lock.unlock();
    for (std::thread& thread : threads) {
        if (!thread.joinable()) continue;
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
    lock.lock();
}

size_t FileWatcher::ClientCount() const {
    std::lock_guard lock(mutex_);
    return run_ ? run_->clients.size() : 0;
}

size_t FileWatcher::ThreadCount() const {
    std::lock_guard lock(mutex_);
    return threads_;
}

size_t FileWatcher::PolledPathCount() const {
    std::lock_guard lock(mutex_);
    if (!run_) return 0;
    return static_cast<size_t>(
        std::count_if(run_->paths.begin(), run_->paths.end(), [](const auto& entry) { return !entry.second->split; }));
}

FileWatcher::Serving FileWatcher::HowServed(const std::wstring& path) const {
    std::lock_guard lock(mutex_);
    if (!run_) return {};
    const auto found = run_->paths.find(path);
    if (found == run_->paths.end()) return {};
    const Path& served = *found->second;
    if (served.never) return {"never", {}};
    if (served.Polled()) return {"polled", {}};
    return {"watched", served.armed.empty() ? std::wstring() : served.armed.back()};
}

size_t FileWatcher::WatchedFolderCount() const {
    std::lock_guard lock(mutex_);
    return run_ ? run_->folders.size() : 0;
}

// Called with the lock held; the body calls Ended last. Not joinable when
// no thread could be started.
std::thread FileWatcher::StartThread(Run& run, std::function<void()> body) {
    std::thread thread;
    try {
        thread = std::thread([&run, body = std::move(body)] {
            runServedHere = &run;
            body();
        });
    } catch (const std::system_error& error) {
        logging::Log(logging::kError, kFunction, L"Cannot start a thread: %S", error.what());
        return thread;
    }
    ++run.threads;
    ++threads_;
    return thread;
}

// The last use of the watcher by a thread of `run`. Called with the lock held.
void FileWatcher::Ended(Run& run) {
    --run.threads;
    --threads_;
    changed_.notify_all();
}

void FileWatcher::Wake(Run& run) {
    if (run.watch) {
        run.watch->Wake();
    } else {
        run.woken = true;
        changed_.notify_all();
    }
}

void FileWatcher::Watch(std::shared_ptr<Run> shared) {
    Run& run = *shared;
    std::unique_lock lock(mutex_);
    while (!run.stop) {
        TakeRequests(run);
        const std::optional<std::chrono::milliseconds> timeout = Schedule(run);
        run.watcherIdle = !timeout;
        AwaitChanges(lock, run, timeout);
    }
    std::unique_ptr<os::FolderWatch> watch = std::move(run.watch);
    lock.unlock();
    watch.reset();
    lock.lock();
    Ended(run);
}

// Called with the lock held, by the watcher thread.
void FileWatcher::TakeRequests(Run& run) {
    // A lane that ended for want of work is joined (it ends but for returning).
    for (Run::Lane& lane : run.lanes)
        if (!lane.alive && lane.thread.joinable()) lane.thread.join();
    for (const os::FolderWatch::Id id : run.toRemove)
        if (run.watch) run.watch->Remove(id);
    run.toRemove.clear();
    for (const std::shared_ptr<Path>& path : std::exchange(run.toArm, {})) {
        if (path->removed) continue;
        Arm(run, *path);
        Enqueue(run, path);
    }
}

// Called with the lock held, by the watcher thread.
std::optional<std::chrono::milliseconds> FileWatcher::Schedule(Run& run) {
    const Clock::time_point now = Clock::now();
    const bool polling =
        std::any_of(run.paths.begin(), run.paths.end(), [](const auto& entry) { return entry.second->Polled(); });
    if (polling && now >= run.nextPoll) {
        for (const auto& [text, path] : run.paths)
            if (path->Polled()) Enqueue(run, path);
        run.nextPoll = now + options_.pollInterval;
    }
    Rescue(run);

    std::optional<std::chrono::milliseconds> timeout;
    if (polling)
        timeout = std::chrono::ceil<std::chrono::milliseconds>(std::max(run.nextPoll - now, Clock::duration{}));
    // A check on the fast lane is timed, to rescue the lane if it sticks.
    const bool checking = std::any_of(std::begin(run.lanes), std::end(run.lanes), [](const Run::Lane& lane) {
        return lane.alive && lane.role == Role::kFast && lane.checking;
    });
    if (checking) timeout = timeout ? std::min(*timeout, kRescueTick) : kRescueTick;
    return timeout;
}

// Called with `lock` held, by the watcher thread; releases it while waiting.
void FileWatcher::AwaitChanges(std::unique_lock<std::mutex>& lock, Run& run,
                               std::optional<std::chrono::milliseconds> timeout) {
    if (!run.watch) {
        const auto woken = [&] { return run.woken || run.stop; };
        if (timeout)
            changed_.wait_for(lock, *timeout, woken);
        else
            changed_.wait(lock, woken);
        run.woken = false;
        return;
    }
    os::FolderWatch& watch = *run.watch;
    lock.unlock();
    os::FolderWatch::Batch batch = watch.Wait(timeout);
    lock.lock();
    if (run.stop) return;
    if (batch.overflow) Rewatch(run);
    for (const os::FolderWatch::Change& change : batch.changes) {
        const auto folder = run.byId.find(change.id);
        if (folder == run.byId.end()) continue;  // no longer needed
        const std::wstring key = folder->second;
        Concerned(run, key, change.name, change.folderGone);
    }
}

// Reports were lost: every watched path is watched afresh and looked at
// again. Called with the lock held, by the watcher thread.
void FileWatcher::Rewatch(Run& run) {
    for (const auto& [text, path] : run.paths) {
        if (!path->split) continue;
        Disarm(run, *path, 0);
        Arm(run, *path);
        Enqueue(run, path);
    }
}

// A report for folder `key`: the paths whose next name there is `name` (any,
// when it is empty or the folder went away) may have changed, and so may the
// folders below it on their way.
void FileWatcher::Concerned(Run& run, const std::wstring& key, const std::wstring& name, bool gone) {
    const auto folder = run.folders.find(key);
    if (folder == run.folders.end()) return;
    const size_t level = folder->second.level;
    std::vector<std::shared_ptr<Path>> concerned;
    for (Path* path : folder->second.users) {
        if (gone || name.empty() || os::MayBeSameEntry(name, path->split->names[level]))
            concerned.push_back(run.paths.at(path->text));
    }
    // A folder that went away is watched again if it is back; below one
    // whose entry changed, the watched folders may now be other folders of
    // the same name: they are watched afresh.
    if (gone) DropFolder(run, key);
    for (const std::shared_ptr<Path>& path : concerned) {
        if (path->armed.size() > level + 1) DropFolder(run, path->armed[level + 1]);
        Arm(run, *path);
        Enqueue(run, path);
    }
}

// Watches the folders of `path` from its deepest watched one down, as far as
// they exist. A path whose folders cannot be watched is polled from now on.
void FileWatcher::Arm(Run& run, Path& path) {
    if (!path.split) return;
    const size_t depth = path.split->names.size();  // folders: the root and all but the last name
    while (path.armed.size() < depth) {
        const size_t level = path.armed.size();
        const std::wstring key = path.FolderAt(level);
        auto existing = run.folders.find(key);
        if (existing == run.folders.end()) {
            const os::Expected<os::FolderWatch::Id> id = run.watch->Add(key);
            if (!id) {
                if (id.status().code() == os::FolderWatch::kFolderMissing) return;
                logging::Log(logging::kWarning, kFunction, L"Cannot watch %s (%s); polling %s", key.c_str(),
                             id.status().message().c_str(), path.text.c_str());
                Disarm(run, path, 0);
                path.split.reset();
                return;
            }
            existing = run.folders.emplace(key, Run::Folder{*id, level, {}}).first;
            run.byId[*id] = key;
        }
        existing->second.users.insert(&path);
        path.armed.push_back(key);
    }
}

// Lets go of the watched folders of `path` below the first `keep`.
void FileWatcher::Disarm(Run& run, Path& path, size_t keep) {
    while (path.armed.size() > keep) {
        const std::wstring key = std::move(path.armed.back());
        path.armed.pop_back();
        const auto folder = run.folders.find(key);
        if (folder == run.folders.end()) continue;
        folder->second.users.erase(&path);
        if (folder->second.users.empty()) {
            run.toRemove.push_back(folder->second.id);
            run.byId.erase(folder->second.id);
            run.folders.erase(folder);
        }
    }
}

// Ends the watch of folder `key` for all its paths, and of every folder
// below it on their way; they are armed again by the caller.
void FileWatcher::DropFolder(Run& run, const std::wstring& key) {
    const auto folder = run.folders.find(key);
    if (folder == run.folders.end()) return;
    const size_t level = folder->second.level;
    const std::vector<Path*> users(folder->second.users.begin(), folder->second.users.end());
    for (Path* path : users) Disarm(run, *path, level);
}

void FileWatcher::Enqueue(Run& run, const std::shared_ptr<Path>& path) {
    if (path->queued) {
        // A check not yet started sees the change too; one running may not.
        if (path->started) path->again = true;
        return;
    }
    path->queued = true;
    const Role role = path->slow ? Role::kSlow : Role::kFast;
    run.queues[static_cast<size_t>(role)].push_back(path);
    EnsureLane(run, role);
    changed_.notify_all();
}

// Makes sure a lane serves `role`, starting one when a place is free.
void FileWatcher::EnsureLane(Run& run, Role role) {
    if (run.stop) return;
    for (const Run::Lane& lane : run.lanes)
        if (lane.alive && lane.role == role) return;
    for (size_t slot = 0; slot < 2; ++slot) {
        Run::Lane& lane = run.lanes[slot];
        if (lane.alive) continue;
        // The thread that held the place has ended but for returning.
        if (lane.thread.joinable()) lane.thread.join();
        lane = Run::Lane{};
        lane.role = role;
        const std::shared_ptr<Run> shared = run.shared_from_this();
        lane.thread = StartThread(run, [this, shared, slot] {
            os::SetCurrentThreadName("cr:file-check");
            Check(shared, slot);
        });
        lane.alive = lane.thread.joinable();
        return;
    }
    // Both lanes serve the other role; an idle one is handed over.
    for (Run::Lane& lane : run.lanes) {
        if (!lane.checking && !lane.calling) {
            lane.role = role;
            return;
        }
    }
}

// A fast lane stuck in one check becomes the slow lane, and the other lane
// (or a new one) takes over the fast paths.
void FileWatcher::Rescue(Run& run) {
    const Clock::time_point now = Clock::now();
    for (Run::Lane& lane : run.lanes) {
        if (!lane.alive || lane.role != Role::kFast || !lane.checking) continue;
        if (now - lane.since < options_.slowCheck) continue;
        lane.checking->slow = true;
        lane.role = Role::kSlow;
        for (Run::Lane& other : run.lanes)
            if (&other != &lane && other.alive && other.role == Role::kSlow && !other.checking && !other.calling)
                other.role = Role::kFast;
    }
    // Slow paths queued for the fast lane move to the slow one.
    auto& fast = run.queues[static_cast<size_t>(Role::kFast)];
    auto& slow = run.queues[static_cast<size_t>(Role::kSlow)];
    for (auto it = fast.begin(); it != fast.end();) {
        if ((*it)->slow) {
            slow.push_back(std::move(*it));
            it = fast.erase(it);
        } else {
            ++it;
        }
    }
    if (!fast.empty()) EnsureLane(run, Role::kFast);
    if (!slow.empty()) EnsureLane(run, Role::kSlow);
    changed_.notify_all();
}

void FileWatcher::Check(std::shared_ptr<Run> shared, size_t slot) {
    Run& run = *shared;
    Run::Lane& lane = run.lanes[slot];
    std::unique_lock lock(mutex_);
    while (!run.stop) {
        auto& queue = run.queues[static_cast<size_t>(lane.role)];
        if (queue.empty()) {
            const bool work = changed_.wait_for(lock, options_.laneIdle, [&] {
                return run.stop || !run.queues[static_cast<size_t>(lane.role)].empty();
            });
            if (!work) break;
            continue;
        }
        const std::shared_ptr<Path> path = std::move(queue.front());
        queue.pop_front();
        if (path->removed) continue;
        path->started = true;
        lane.checking = path.get();
        lane.since = Clock::now();
        if (run.watcherIdle) {
            // The watcher times this check.
            run.watcherIdle = false;
            Wake(run);
        }
        lock.unlock();
        const bool exists = Exists(path->text);
        lock.lock();
        lane.checking = nullptr;
        if (Clock::now() - lane.since < options_.slowCheck) path->slow = false;
        const std::vector<Client*> clients = path->clients;
        for (Client* client : clients) {
            if (std::find(path->clients.begin(), path->clients.end(), client) == path->clients.end()) continue;
            lane.calling = client;
            lock.unlock();
            clientCalledHere = client;
            client->OnChecked(exists);
            clientCalledHere = nullptr;
            lock.lock();
            lane.calling = nullptr;
            changed_.notify_all();
        }
        path->queued = false;
        path->started = false;
        if (path->again && !path->removed) {
            path->again = false;
            Enqueue(run, path);
        }
    }
    lane.alive = false;
    lane.checking = nullptr;
    Wake(run);  // to be joined
    Ended(run);
}

}  // namespace Product::Integration::ConditionManager
