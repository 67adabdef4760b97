#include "os/file_io.h"

#include <fcntl.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstring>

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

// "<what> <path>: <the system's text for `code`>".
void Describe(std::wstring* error, const wchar_t* what, const std::wstring& path, int code) {
    if (!error) return;
    *error = std::wstring(what) + L" " + path + L": " + Utf8ToWideLossy(std::strerror(code));
}

class Descriptor {
public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&& other) noexcept {
        Close();
        fd_ = other.fd_;
        other.fd_ = -1;
        return *this;
    }
    int get() const noexcept { return fd_; }
    // The result of close(): a write that failed late may show only here.
    int Close() noexcept {
        if (fd_ < 0) return 0;
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

bool WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace

ReadResult ReadWholeFile(const std::wstring& path, std::string& bytes, std::wstring* error) {
    bytes.clear();
    const auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('\0') != std::string::npos) {
        Describe(error, L"reading", path, EINVAL);
        return ReadResult::kFailed;
    }
    Descriptor file(::open(narrow->c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        const int code = errno;
        if (code == ENOENT) return ReadResult::kMissing;
        Describe(error, L"opening", path, code);
        return ReadResult::kFailed;
    }
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            const int code = errno;
            bytes.clear();
            Describe(error, L"reading", path, code);
            return ReadResult::kFailed;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return ReadResult::kRead;
}

bool WriteFileAtomically(const std::wstring& path, std::string_view bytes, std::wstring* error) {
    const auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('\0') != std::string::npos || narrow->back() == '/') {
        Describe(error, L"writing", path, EINVAL);
        return false;
    }
    // A fresh name beside the target keeps the rename within one file system.
    // Created like any other file of the process (mode 0666 less the umask).
    static std::atomic<unsigned> counter{0};
    std::string temporary;
    Descriptor file;
    for (int attempt = 0; attempt < 100 && file.get() < 0; ++attempt) {
        temporary = *narrow + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
        file = Descriptor(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (file.get() < 0 && errno != EEXIST) break;  // a name left by an earlier process: try the next
    }
    if (file.get() < 0) {
        Describe(error, L"creating a temporary file beside", path, errno);
        return false;
    }
    auto fail = [&](const wchar_t* what, int code) {
        file.Close();
        ::unlink(temporary.c_str());
        Describe(error, what, path, code);
        return false;
    };
    if (!WriteAll(file.get(), bytes)) return fail(L"writing the temporary file for", errno);
    if (::fsync(file.get()) != 0) return fail(L"flushing the temporary file for", errno);
    if (file.Close() != 0) return fail(L"closing the temporary file for", errno);
    if (::rename(temporary.c_str(), narrow->c_str()) != 0) return fail(L"renaming the temporary file to", errno);
    // The rename is durable once the folder's entry is on the disk. Some file
    // systems refuse to flush a folder; the new content is in place all the
    // same, so that is no failure.
    std::string folder = WideToUtf8Lossy(DirectoryOf(path));
    if (folder.empty()) folder = narrow->front() == '/' ? "/" : ".";
    Descriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0) (void)::fsync(directory.get());
    return true;
}

bool AppendDurably(const std::wstring& path, std::string_view bytes, std::wstring* error) {
    const auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('\0') != std::string::npos) {
        Describe(error, L"appending to", path, EINVAL);
        return false;
    }
    Descriptor file(::open(narrow->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (file.get() < 0) {
        Describe(error, L"opening for appending", path, errno);
        return false;
    }
    const off_t oldLength = ::lseek(file.get(), 0, SEEK_END);
    auto fail = [&](const wchar_t* what, int code) {
        if (oldLength >= 0) (void)::ftruncate(file.get(), oldLength);
        Describe(error, what, path, code);
        return false;
    };
    if (oldLength < 0) return fail(L"finding the end of", errno);
    if (!WriteAll(file.get(), bytes)) return fail(L"appending to", errno);
    if (::fdatasync(file.get()) != 0) return fail(L"flushing", errno);
    if (file.Close() != 0) return fail(L"closing", errno);
    return true;
}

}  // namespace os
