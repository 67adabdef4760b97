#include <windows.h>

#include <unordered_map>

#include "os/file_watch.h"

namespace os {
namespace {

// What makes an entry appear or vanish.
constexpr DWORD kFilter = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME;
constexpr DWORD kBufferBytes = 16 * 1024;
// The completion key of a Wake; watches use their (non-zero) id.
constexpr ULONG_PTR kWakeKey = 0;

// The failure of the system call `what` with `error`; a `missing` folder
// has the code kFolderMissing.
enum class Missing { kNo, kYes };
Status Failed(const wchar_t* what, DWORD error, Missing missing = Missing::kNo) {
    const int32_t code = missing == Missing::kYes ? FolderWatch::kFolderMissing : static_cast<int32_t>(error);
    return Status::Failure(code, std::wstring(what) + L" failed with error " + std::to_wstring(error));
}

// One watched folder: its handle and the read request in flight.
struct Folder {
    HANDLE handle = INVALID_HANDLE_VALUE;
    OVERLAPPED overlapped{};
    alignas(DWORD) BYTE buffer[kBufferBytes];
    bool pending = false;  // a read is in flight; the record lives until it completes
    bool removed = false;  // Remove was called; freed when the read completes
};

class CompletionPortWatch final : public FolderWatch {
public:
    explicit CompletionPortWatch(HANDLE port) : port_(port) {}

    ~CompletionPortWatch() override {
        size_t pending = 0;
        for (auto& [id, folder] : folders_) {
            if (folder->pending) {
                ::CancelIoEx(folder->handle, &folder->overlapped);
                ++pending;
            }
            ::CloseHandle(folder->handle);
            folder->removed = true;
        }
        // The system writes into a record until its read has completed.
        while (pending > 0) {
            DWORD bytes = 0;
            ULONG_PTR key = 0;
            OVERLAPPED* overlapped = nullptr;
            ::GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, 5000);
            if (!overlapped) break;  // gave up: leak the records rather than free them in use
            if (key != kWakeKey) --pending;
            folders_.erase(key);
        }
        if (pending > 0) {
            for (auto& entry : folders_) entry.second.release();
        }
        ::CloseHandle(port_);
    }

    Expected<Id> Add(const std::wstring& folder) override {
        const DWORD attributes = ::GetFileAttributesW(folder.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            const DWORD cause = attributes == INVALID_FILE_ATTRIBUTES ? ::GetLastError() : ERROR_DIRECTORY;
            const bool missing = cause == ERROR_FILE_NOT_FOUND || cause == ERROR_PATH_NOT_FOUND ||
                                 cause == ERROR_DIRECTORY || cause == ERROR_INVALID_NAME;
            return Failed(L"GetFileAttributesW", cause, missing ? Missing::kYes : Missing::kNo);
        }
        auto record = std::make_unique<Folder>();
        record->handle =
            ::CreateFileW(folder.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                          nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
        if (record->handle == INVALID_HANDLE_VALUE) {
            const DWORD cause = ::GetLastError();
            const bool missing = cause == ERROR_FILE_NOT_FOUND || cause == ERROR_PATH_NOT_FOUND;
            return Failed(L"CreateFileW", cause, missing ? Missing::kYes : Missing::kNo);
        }
        const Id next = lastId_ + 1;
        if (!::CreateIoCompletionPort(record->handle, port_, static_cast<ULONG_PTR>(next), 0)) {
            const DWORD cause = ::GetLastError();
            ::CloseHandle(record->handle);
            return Failed(L"CreateIoCompletionPort", cause);
        }
        if (!Read(*record)) {
            const DWORD cause = ::GetLastError();
            ::CloseHandle(record->handle);
            return Failed(L"ReadDirectoryChangesW", cause);
        }
        lastId_ = next;
        folders_[next] = std::move(record);
        return next;
    }

    void Remove(Id id) override {
        const auto found = folders_.find(id);
        if (found == folders_.end() || found->second->removed) return;
        Folder& folder = *found->second;
        folder.removed = true;
        if (folder.pending) ::CancelIoEx(folder.handle, &folder.overlapped);
        ::CloseHandle(folder.handle);
        if (!folder.pending) folders_.erase(found);
    }

    Batch Wait(std::optional<std::chrono::milliseconds> timeout) override {
        Batch batch;
        DWORD wait = timeout ? static_cast<DWORD>(std::min<int64_t>(timeout->count(), INFINITE - 1)) : INFINITE;
        for (;;) {
            DWORD bytes = 0;
            ULONG_PTR key = 0;
            OVERLAPPED* overlapped = nullptr;
            const BOOL ok = ::GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, wait);
            if (!overlapped) return batch;  // timed out, or the queue is empty
            // Gather what else is queued without waiting again.
            wait = 0;
            if (key == kWakeKey) continue;
            Completed(key, ok != FALSE, bytes, batch);
        }
    }

    void Wake() noexcept override { ::PostQueuedCompletionStatus(port_, 0, kWakeKey, &wakeRecord_); }

private:
    static bool Read(Folder& folder) {
        folder.overlapped = OVERLAPPED{};
        folder.pending = ::ReadDirectoryChangesW(folder.handle, folder.buffer, kBufferBytes, FALSE, kFilter, nullptr,
                                                 &folder.overlapped, nullptr) != FALSE;
        return folder.pending;
    }

    void Completed(Id id, bool ok, DWORD bytes, Batch& batch) {
        const auto found = folders_.find(id);
        if (found == folders_.end()) return;
        Folder& folder = *found->second;
        folder.pending = false;
        if (folder.removed) {
            folders_.erase(found);
            return;
        }
        if (!ok) {
            // The folder was deleted or became unreachable: the watch is dead.
            batch.changes.push_back({id, L"", true});
            return;
        }
        if (bytes == 0) {
            // The buffer overflowed: the names are lost.
            batch.changes.push_back({id, L"", false});
        } else {
            for (DWORD at = 0;;) {
                const auto* entry = reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(folder.buffer + at);
                batch.changes.push_back(
                    {id, std::wstring(entry->FileName, entry->FileNameLength / sizeof(wchar_t)), false});
                if (entry->NextEntryOffset == 0) break;
                at += entry->NextEntryOffset;
            }
        }
        if (!Read(folder)) batch.changes.push_back({id, L"", true});
    }

    const HANDLE port_;
    OVERLAPPED wakeRecord_{};  // only marks a Wake; the system does not write it
    Id lastId_ = 0;
    std::unordered_map<Id, std::unique_ptr<Folder>> folders_;
};

bool IsDriveLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }
bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

Expected<std::unique_ptr<FolderWatch>> FolderWatch::Open() {
    const HANDLE port = ::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    if (!port) return Status::System(::GetLastError(), L"CreateIoCompletionPort");
    return std::unique_ptr<FolderWatch>(std::make_unique<CompletionPortWatch>(port));
}

const bool kWatchHoldsFolders = true;

std::optional<WatchablePath> SplitWatchablePath(const std::wstring& path) {
    if (path.find(L'\0') != std::wstring::npos) return std::nullopt;
    std::wstring rest = path;
    std::wstring prefix;
    // "\\?\C:\..." names a local drive without the usual path rules; other
    // "\\" forms are shares ("\\server\share", "\\?\UNC\...") or devices.
    if (rest.rfind(L"\\\\?\\", 0) == 0) {
        prefix = L"\\\\?\\";
        rest = rest.substr(4);
    }
    if (rest.size() < 3 || !IsDriveLetter(rest[0]) || rest[1] != L':' || !IsSeparator(rest[2])) return std::nullopt;
    const std::wstring drive = rest.substr(0, 2) + L"\\";
    if (::GetDriveTypeW(drive.c_str()) == DRIVE_REMOTE) return std::nullopt;
    WatchablePath split{prefix + drive, {}};
    size_t at = 3;
    while (at < rest.size()) {
        size_t end = at;
        while (end < rest.size() && !(rest[end] == L'\\' || (prefix.empty() && rest[end] == L'/'))) ++end;
        if (end > at) {
            std::wstring name = rest.substr(at, end - at);
            if (name == L"." || name == L"..") return std::nullopt;
            split.names.push_back(std::move(name));
        }
        at = end + 1;
    }
    if (split.names.empty()) return std::nullopt;
    return split;
}

bool MayBeSameEntry(const std::wstring& reported, const std::wstring& name) {
    if (reported.find(L'~') != std::wstring::npos || name.find(L'~') != std::wstring::npos) return true;
    return ::CompareStringOrdinal(reported.c_str(), static_cast<int>(reported.size()), name.c_str(),
                                  static_cast<int>(name.size()), TRUE) == CSTR_EQUAL;
}

}  // namespace os
