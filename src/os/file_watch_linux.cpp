#include <linux/magic.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "os/file_watch.h"
#include "os/utf8.h"

namespace os {
namespace {

// What makes an entry appear or vanish, and the folder itself going away.
constexpr uint32_t kMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// File systems whose changes made by other machines inotify never reports.
bool IsRemoteFileSystem(long type) {
    switch (static_cast<unsigned long>(type)) {
        case NFS_SUPER_MAGIC:
        case SMB_SUPER_MAGIC:
        case 0xFF534D42UL:  // CIFS
        case 0xFE534D42UL:  // SMB2
        case CODA_SUPER_MAGIC:
        case 0x65735546UL:  // FUSE (sshfs and the like)
        case 0x6B414653UL:  // AFS
        case 0x01021997UL:  // 9P
            return true;
        default:
            return false;
    }
}

std::wstring ErrorText(const char* what, int error) {
    return Utf8ToWideLossy(std::string(what) + ": " + std::strerror(error));
}

class InotifyWatch final : public FolderWatch {
public:
    InotifyWatch(int inotify, int wake) : inotify_(inotify), wake_(wake) {}
    ~InotifyWatch() override {
        ::close(inotify_);
        ::close(wake_);
    }

    Expected<Id> Add(const std::wstring& folder) override {
        const std::optional<std::string> narrow = WideToUtf8(folder);
        if (!narrow || narrow->find('\0') != std::string::npos)
            return Status::Failure(qv::status::kInvalidParameter, L"the path cannot be handed to the system");
        const int descriptor = ::inotify_add_watch(inotify_, narrow->c_str(), kMask);
        if (descriptor < 0) {
            const int cause = errno;
            const bool missing = cause == ENOENT || cause == ENOTDIR;
            return Status::Failure(missing ? kFolderMissing : cause, ErrorText("inotify_add_watch", cause));
        }
        struct statfs info;
        if (::statfs(narrow->c_str(), &info) == 0 && IsRemoteFileSystem(info.f_type)) {
            // Two names of one folder share the descriptor; drop it only
            // when no other watch uses it.
            if (!owners_.count(descriptor)) ::inotify_rm_watch(inotify_, descriptor);
            return Status::Failure(qv::status::kNotSupported, L"the folder lies on a network file system");
        }
        const Id id = ++lastId_;
        descriptors_[id] = descriptor;
        owners_[descriptor].push_back(id);
        return id;
    }

    void Remove(Id id) override {
        const auto found = descriptors_.find(id);
        if (found == descriptors_.end()) return;
        const int descriptor = found->second;
        descriptors_.erase(found);
        const auto owners = owners_.find(descriptor);
        if (owners == owners_.end()) return;  // the kernel ended it already
        std::erase(owners->second, id);
        if (owners->second.empty()) {
            owners_.erase(owners);
            ::inotify_rm_watch(inotify_, descriptor);
        }
    }

    Batch Wait(std::optional<std::chrono::milliseconds> timeout) override {
        Batch batch;
        pollfd sources[2] = {{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}};
        const int wait = timeout ? static_cast<int>(std::min<int64_t>(timeout->count(), INT32_MAX)) : -1;
        if (::poll(sources, 2, wait) <= 0) return batch;
        if (sources[1].revents) {
            uint64_t count;
            static_cast<void>(::read(wake_, &count, sizeof count));
        }
        if (sources[0].revents) Drain(batch);
        return batch;
    }

    void Wake() noexcept override {
        const uint64_t one = 1;
        static_cast<void>(::write(wake_, &one, sizeof one));
    }

private:
    // Reads every queued report (the descriptor does not block).
    void Drain(Batch& batch) {
        alignas(inotify_event) char buffer[16 * 1024];
        for (;;) {
            const ssize_t length = ::read(inotify_, buffer, sizeof buffer);
            if (length <= 0) return;
            for (ssize_t at = 0; at < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                Take(*event, batch);
            }
        }
    }

    void Take(const inotify_event& event, Batch& batch) {
        if (event.mask & IN_Q_OVERFLOW) {
            batch.overflow = true;
            return;
        }
        const auto owners = owners_.find(event.wd);
        if (owners == owners_.end()) return;
        const bool gone = (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0;
        std::wstring name;
        if (!gone && event.len > 0) name = Utf8ToWideLossy(event.name);  // NUL-padded
        for (const Id id : owners->second) batch.changes.push_back({id, name, gone});
        // The kernel has ended this watch; its descriptor may be reused.
        if (event.mask & IN_IGNORED) owners_.erase(owners);
    }

    const int inotify_;
    const int wake_;
    Id lastId_ = 0;
    std::unordered_map<Id, int> descriptors_;
    std::unordered_map<int, std::vector<Id>> owners_;  // watches sharing one descriptor
};

}  // namespace

Expected<std::unique_ptr<FolderWatch>> FolderWatch::Open() {
    const int inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify < 0) return Status::System(static_cast<uint32_t>(errno), L"inotify_init1");
    const int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        const int cause = errno;
        ::close(inotify);
        return Status::System(static_cast<uint32_t>(cause), L"eventfd");
    }
    return std::unique_ptr<FolderWatch>(std::make_unique<InotifyWatch>(inotify, wake));
}

const bool kWatchHoldsFolders = false;

std::optional<WatchablePath> SplitWatchablePath(const std::wstring& path) {
    if (path.empty() || path[0] != L'/' || path.find(L'\0') != std::wstring::npos) return std::nullopt;
    WatchablePath split{L"/", {}};
    size_t at = 0;
    while (at < path.size()) {
        const size_t end = std::min(path.find(L'/', at), path.size());
        if (end > at) {
            std::wstring name = path.substr(at, end - at);
            if (name == L"." || name == L"..") return std::nullopt;
            split.names.push_back(std::move(name));
        }
        at = end + 1;
    }
    if (split.names.empty()) return std::nullopt;
    return split;
}

bool MayBeSameEntry(const std::wstring& reported, const std::wstring& name) { return reported == name; }

}  // namespace os
