#pragma once
// Tells file conditions whether their paths exist, looking only when the
// system reports a change that may concern them.
//
// Design. One could poll each path on a thread of its own; that costs a
// thread and ten wake-ups a second per condition, for paths that rarely
// change. Instead one watcher thread asks the system for change reports on
// the folders of every path (os/file_watch.h), and an existence check runs
// only when a report concerns a path. The folders watched for a path are all
// its existing ancestors, from the root down to the deepest one that exists
// (its parent folder when that exists): a report of the next name of the
// path in any of them means the path may have appeared or vanished, or a
// folder of it was created, removed or renamed. The watches then move: down
// when folders appeared, up when they vanished; each folder is watched once
// however many paths lie under it. Reports that lost their names (a full
// queue, a coalesced report) make every concerned path be looked at again.
//
// Paths that cannot be watched (relative paths, network shares, a watch
// that the system refuses, no notification source at all, or polling chosen
// by the owner) are polled every `pollInterval` instead.
//
// On Windows polling is the default: a watch there holds its folder open, so
// a deleted folder stays in place until the watch lets go, and deleting the
// folder tree above a watched path fails meanwhile (seen under Wine, where
// the watch is not even told of the deletion). Watching on Windows must not
// become the default before that is solved.
//
// Checks never run on the watcher thread: they run on a check lane, a thread
// started when there is something to check and ended after `laneIdle`
// without work. A check that takes longer than `slowCheck` (an unreachable
// share) marks its path slow: that lane becomes the slow lane, serving slow
// paths only, and another lane takes over the others, so a slow path never
// holds up the rest. There are at most two lanes, so the watcher uses one
// thread at rest and three at most, and none while no client is registered.
//
// A check is made after every report that concerns a path, and once after
// registration when its watches are in place, so a change that lasts is
// always seen; a path created and deleted again before the check runs may
// go unseen.
//
// Thread rules: Register and Unregister from any thread. OnChecked is called
// on a lane without any lock of the watcher held, never twice at a time for
// one client, and not after Unregister of that client returned: Unregister
// waits for a call to it in progress. So a caller of Unregister must not hold
// a lock that the client's OnChecked takes; from inside its own OnChecked a
// client may unregister (it does not wait for itself) but must then stay
// alive until OnChecked returns. The last Unregister waits for the threads to
// end, which may take as long as a check in progress.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace Product::Integration::ConditionManager {

class FileWatcher {
public:
    // What the watcher calls; implemented by the file conditions.
    class Client {
    public:
        // The answer of an existence check of the client's path.
        virtual void OnChecked(bool exists) = 0;

    protected:
        ~Client() = default;
    };

    using ExistenceCheck = std::function<bool(const std::wstring& path)>;

    enum class Watching { kSystem, kPollOnly };
    // kSystem where watches leave folders free to be deleted, else kPollOnly.
    static Watching DefaultWatching();

    struct Options {
        ExistenceCheck check;  // os::PathExists when empty
        Watching watching = DefaultWatching();
        std::chrono::milliseconds pollInterval{100};
        std::chrono::milliseconds slowCheck{100};
        std::chrono::milliseconds laneIdle{1000};
    };

    FileWatcher();
    explicit FileWatcher(Options options);
    // Waits for the threads of the last run to end; clients must have left.
    ~FileWatcher();
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    // The watcher of all file conditions of the process. Never destroyed, so
    // that a process ending with conditions alive has no thread to join.
    static FileWatcher& Shared();

    // Starts telling `client` about `path`, starting the threads when it is
    // the first client. False when it is registered already or no thread
    // can be started.
    [[nodiscard]] bool Register(Client* client, const std::wstring& path);
    // Stops telling `client` (nothing when it is not registered); see above.
    void Unregister(Client* client);

    // One existence check of `path` through the configured check. Any thread.
    bool Exists(const std::wstring& path) const;

    // For diagnostics and tests.
    size_t ClientCount() const;
    // Threads started by the watcher that have not ended yet.
    size_t ThreadCount() const;
    // Paths polled because they cannot be watched.
    size_t PolledPathCount() const;
    // Folders watched through the system.
    size_t WatchedFolderCount() const;
    // How `path` is looked at now: "watched" with the deepest folder watched
    // for it, "polled", "never" (the empty path), or "" when nobody asks.
    struct Serving {
        const char* how = "";
        std::wstring folder;
    };
    Serving HowServed(const std::wstring& path) const;

private:
    struct Path;
    struct Run;
    enum class Role;

    // The watcher thread's loop, and its phases (called with the lock held):
    // take what other threads asked for (paths to arm, watches to remove,
    // lanes to join); queue the polled paths that are due and rescue a stuck
    // lane, giving how long the watcher may wait (none: until woken); wait
    // for reports, the lock released meanwhile, and act on them.
    void Watch(std::shared_ptr<Run> run);
    void TakeRequests(Run& run);
    std::optional<std::chrono::milliseconds> Schedule(Run& run);
    void AwaitChanges(std::unique_lock<std::mutex>& lock, Run& run, std::optional<std::chrono::milliseconds> timeout);
    void Rewatch(Run& run);
    void Check(std::shared_ptr<Run> run, size_t slot);
    std::thread StartThread(Run& run, std::function<void()> body);
    void Ended(Run& run);
    void End(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Run>& run);

    void Arm(Run& run, Path& path);
    void Disarm(Run& run, Path& path, size_t keep);
    void DropFolder(Run& run, const std::wstring& key);
    void Concerned(Run& run, const std::wstring& key, const std::wstring& name, bool gone);
    void Enqueue(Run& run, const std::shared_ptr<Path>& path);
    void EnsureLane(Run& run, Role role);
    void Rescue(Run& run);
    void Wake(Run& run);

    const Options options_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;  // work queued, a call or thread ended, a role changed
    std::shared_ptr<Run> run_;         // the threads serving the registered clients
    size_t threads_ = 0;               // of every run
};

}  // namespace Product::Integration::ConditionManager
