#pragma once
// Change notifications for folders, as the system offers them: inotify on
// Linux, ReadDirectoryChangesW on one completion port on Windows. Only the
// system calls live here; which folders to watch, and what a change means,
// is decided by the caller.
//
// A watch covers the entries directly inside one folder (not the subtree):
// entries created, deleted or renamed, and the folder itself going away.
// Reports may be coalesced or lost (a full queue); the caller is told so and
// must then look again at everything it cares about.
//
// Thread rules: Add, Remove and Wait are called by one thread (the one that
// serves the watch); Wake may be called from any thread, also during Wait.
// The object may be destroyed on any thread once no call is running.
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "os/status.h"
#include "qv/status.h"

namespace os {

class FolderWatch {
public:
    using Id = uint64_t;

    // The code of an Add whose folder is missing (absent, or not a folder),
    // apart from a folder that exists but cannot be watched (limit reached,
    // remote file system, ...): that failure carries the system's error.
    static constexpr int32_t kFolderMissing = qv::status::kPathNotFound;

    struct Change {
        Id id = 0;
        // The entry of the folder that changed, when the system said which;
        // empty when it did not (the caller then looks at every entry).
        std::wstring name;
        // The folder itself went away or was moved, or the system stopped
        // watching it: its watch is dead and must be removed and added again.
        bool folderGone = false;
    };

    struct Batch {
        std::vector<Change> changes;
        // Reports were lost: anything watched may have changed.
        bool overflow = false;
    };

    // The system's notification source, or the system's error when it
    // cannot be opened.
    static Expected<std::unique_ptr<FolderWatch>> Open();

    virtual ~FolderWatch() = default;

    // Starts watching `folder`: the id that names the watch in the reports
    // until Remove, or the failure with the reason.
    virtual Expected<Id> Add(const std::wstring& folder) = 0;
    // Ends watch `id` (one that is no longer known is ignored).
    virtual void Remove(Id id) = 0;
    // Waits up to `timeout` (forever when nullopt) for reports or Wake, and
    // returns the reports gathered (none after a time-out or a Wake).
    virtual Batch Wait(std::optional<std::chrono::milliseconds> timeout) = 0;
    // Makes a running or the next Wait return soon.
    virtual void Wake() noexcept = 0;
};

// An absolute local path taken apart for watching: the root folder ("/",
// "C:\") and the names below it.
struct WatchablePath {
    std::wstring root;
    std::vector<std::wstring> names;
};

// Whether a watch holds its folder open, so that a deleted folder stays in
// place (and deleting the folder above it fails) until its watch ends: true
// on Windows, where a folder is watched through a handle to it.
extern const bool kWatchHoldsFolders;

// Splits `path`; nullopt when its folders cannot be watched: a relative path
// (its meaning follows the current directory), one with "." or ".." names,
// a network path (UNC, or a drive letter mapped to a share), or no name
// below the root at all. Pure apart from asking the system about drives.
std::optional<WatchablePath> SplitWatchablePath(const std::wstring& path);

// Whether `reported`, the name of a changed entry in a report, may be the
// entry `name` of the same folder. On Windows names are compared without
// case and any short (8.3) form matches, because reports and paths may use
// either form.
bool MayBeSameEntry(const std::wstring& reported, const std::wstring& name);

}  // namespace os
