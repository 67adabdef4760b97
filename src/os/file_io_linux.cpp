#include "os/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <optional>

#include "os/file_io_steps.h"
#include "os/path.h"
#include "os/utf8.h"

namespace os {

FilePtr OpenFile(const std::wstring& path, const wchar_t* mode) {
    auto narrowPath = WideToUtf8(path);
    auto narrowMode = WideToUtf8(mode ? mode : L"");
    if (!narrowPath || !narrowMode) return nullptr;
    return FilePtr(std::fopen(narrowPath->c_str(), narrowMode->c_str()));
}

namespace {

Status Failed(const wchar_t* what, const std::wstring& path, int code) {
    const int32_t status = code == ENOENT ? kFileMissing : static_cast<int32_t>(code);
    return Status::Failure(status, file_steps::Describe(what, path, static_cast<file_steps::ErrorCode>(code)));
}

class Descriptor {
public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return fd_; }
    void Close() noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

}  // namespace

Expected<std::string> ReadWholeFile(const std::wstring& path) {
    const auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('\0') != std::string::npos) return Failed(L"reading", path, EINVAL);
    Descriptor file(::open(narrow->c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return Failed(L"opening", path, errno);
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            return Failed(L"reading", path, errno);
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

namespace file_steps {

namespace {

std::optional<std::string> Narrow(const std::wstring& path) {
    auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('\0') != std::string::npos) return std::nullopt;
    return narrow;
}

ErrorCode Code(int code) noexcept { return static_cast<ErrorCode>(code); }

int Fd(NativeFile file) noexcept { return static_cast<int>(file); }

}  // namespace

ErrorCode InvalidPathCode() noexcept { return Code(EINVAL); }

bool UsablePath(const std::wstring& path, Target target) {
    const auto narrow = Narrow(path);
    return narrow && (target != Target::kReplaced || narrow->back() != '/');
}

bool IsReadOnly(const std::wstring& path) {
    const auto narrow = Narrow(path);
    struct stat info {};
    if (!narrow || ::stat(narrow->c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    // The mode is checked itself: root may write whatever the mode says.
    if ((info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) return true;
    return ::access(narrow->c_str(), W_OK) != 0 && (errno == EACCES || errno == EROFS);
}

ErrorCode CreateNew(const std::wstring& path, NativeFile& file) {
    const auto narrow = Narrow(path);
    if (!narrow) return InvalidPathCode();
    // Created like any other file of the process (mode 0666 less the umask).
    const int fd = ::open(narrow->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return Code(errno);
    file = fd;
    return 0;
}

bool AlreadyExists(ErrorCode code) noexcept { return code == Code(EEXIST); }

ErrorCode OpenToAppend(const std::wstring& path, NativeFile& file) {
    const auto narrow = Narrow(path);
    if (!narrow) return InvalidPathCode();
    const int fd = ::open(narrow->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return Code(errno);
    file = fd;
    return 0;
}

ErrorCode WriteAll(NativeFile file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(Fd(file), bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return Code(errno);
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

ErrorCode LengthOf(NativeFile file, uint64_t& length) {
    const off_t end = ::lseek(Fd(file), 0, SEEK_END);
    if (end < 0) return Code(errno);
    length = static_cast<uint64_t>(end);
    return 0;
}

void CutBack(NativeFile file, uint64_t length) noexcept {
    if (file != kNoFile) static_cast<void>(::ftruncate(Fd(file), static_cast<off_t>(length)));
}

// The data and the size, which is all a reader needs (fdatasync).
ErrorCode FlushToDisk(NativeFile file) { return ::fdatasync(Fd(file)) == 0 ? 0 : Code(errno); }

ErrorCode Close(NativeFile file) noexcept { return ::close(Fd(file)) == 0 ? 0 : Code(errno); }

ErrorCode Replace(const std::wstring& from, const std::wstring& to) {
    const auto narrowFrom = Narrow(from);
    const auto narrowTo = Narrow(to);
    if (!narrowFrom || !narrowTo) return InvalidPathCode();
    return ::rename(narrowFrom->c_str(), narrowTo->c_str()) == 0 ? 0 : Code(errno);
}

// The rename is durable once the folder's entry is on the disk. Some file
// systems refuse to flush a folder.
void FlushFolderOf(const std::wstring& path) noexcept {
    try {
        std::string folder = WideToUtf8Lossy(DirectoryOf(path));
        if (folder.empty()) folder = path.front() == L'/' ? "/" : ".";
        const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return;
        static_cast<void>(::fsync(fd));
        ::close(fd);
    } catch (...) {
        // No memory for the folder's name: the rename stands all the same.
    }
}

void Remove(const std::wstring& path) noexcept {
    try {
        if (const auto narrow = Narrow(path)) ::unlink(narrow->c_str());
    } catch (...) {
        // No memory for the file's name: the temporary file stays behind.
    }
}

unsigned long ProcessId() noexcept { return static_cast<unsigned long>(::getpid()); }

std::wstring Describe(const wchar_t* what, const std::wstring& path, ErrorCode code) {
    return std::wstring(what) + L" " + path + L": " + Utf8ToWideLossy(std::strerror(static_cast<int>(code)));
}

}  // namespace file_steps

}  // namespace os
