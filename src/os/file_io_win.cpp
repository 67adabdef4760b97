#include "os/file_io.h"

#include <windows.h>

#include <cstdio>

#include "os/file_io_steps.h"

namespace os {

FilePtr OpenFile(const std::wstring& path, const wchar_t* mode) {
    return FilePtr(::_wfopen(path.c_str(), mode ? mode : L""));
}

namespace {

Status Failed(const wchar_t* what, const std::wstring& path, DWORD code) {
    const bool missing = code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
    return Status::Failure(missing ? kFileMissing : static_cast<int32_t>(code), file_steps::Describe(what, path, code));
}

class Handle {
public:
    explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) noexcept : handle_(handle) {}
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    HANDLE get() const noexcept { return handle_; }
    bool valid() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    void Close() noexcept {
        if (valid()) ::CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
    }

private:
    HANDLE handle_;
};

bool BadPath(const std::wstring& path) { return path.empty() || path.find(L'\0') != std::wstring::npos; }

}  // namespace

Expected<std::string> ReadWholeFile(const std::wstring& path) {
    if (BadPath(path)) return Failed(L"reading", path, ERROR_INVALID_PARAMETER);
    Handle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) return Failed(L"opening", path, ::GetLastError());
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        DWORD got = 0;
        if (!::ReadFile(file.get(), buffer, sizeof buffer, &got, nullptr))
            return Failed(L"reading", path, ::GetLastError());
        if (got == 0) break;
        bytes.append(buffer, got);
    }
    return bytes;
}

namespace file_steps {

namespace {

HANDLE Native(NativeFile file) noexcept { return reinterpret_cast<HANDLE>(file); }

NativeFile FromNative(HANDLE handle) noexcept { return reinterpret_cast<NativeFile>(handle); }

ErrorCode Opened(HANDLE handle, NativeFile& file) {
    if (handle == INVALID_HANDLE_VALUE) return ::GetLastError();
    file = FromNative(handle);
    return 0;
}

}  // namespace

ErrorCode InvalidPathCode() noexcept { return ERROR_INVALID_PARAMETER; }

bool UsablePath(const std::wstring& path, Target target) {
    return !BadPath(path) && (target != Target::kReplaced || (path.back() != L'\\' && path.back() != L'/'));
}

bool IsReadOnly(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 &&
           (attributes & FILE_ATTRIBUTE_READONLY) != 0;
}

ErrorCode CreateNew(const std::wstring& path, NativeFile& file) {
    return Opened(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr),
                  file);
}

bool AlreadyExists(ErrorCode code) noexcept { return code == ERROR_FILE_EXISTS || code == ERROR_ALREADY_EXISTS; }

ErrorCode OpenToAppend(const std::wstring& path, NativeFile& file) {
    return Opened(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr),
                  file);
}

// Positioned writes: an append's file is at its end once LengthOf has run.
ErrorCode WriteAll(NativeFile file, std::string_view bytes) {
    while (!bytes.empty()) {
        const DWORD chunk = static_cast<DWORD>(bytes.size() < 0x40000000u ? bytes.size() : 0x40000000u);
        DWORD written = 0;
        if (!::WriteFile(Native(file), bytes.data(), chunk, &written, nullptr)) return ::GetLastError();
        bytes.remove_prefix(written);
    }
    return 0;
}

// Also moves the file's position to its end, where an append writes.
ErrorCode LengthOf(NativeFile file, uint64_t& length) {
    LARGE_INTEGER end{};
    if (!::SetFilePointerEx(Native(file), LARGE_INTEGER{}, &end, FILE_END)) return ::GetLastError();
    length = static_cast<uint64_t>(end.QuadPart);
    return 0;
}

void CutBack(NativeFile file, uint64_t length) noexcept {
    if (file == kNoFile) return;
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(length);
    if (::SetFilePointerEx(Native(file), position, nullptr, FILE_BEGIN)) ::SetEndOfFile(Native(file));
}

ErrorCode FlushToDisk(NativeFile file) { return ::FlushFileBuffers(Native(file)) ? 0 : ::GetLastError(); }

ErrorCode Close(NativeFile file) noexcept { return ::CloseHandle(Native(file)) ? 0 : ::GetLastError(); }

// Write-through: the call returns once the rename is on the disk.
ErrorCode Replace(const std::wstring& from, const std::wstring& to) {
    return ::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
               ? 0
               : ::GetLastError();
}

// MoveFileExW's write-through already made the rename durable.
void FlushFolderOf(const std::wstring&) noexcept {}

void Remove(const std::wstring& path) noexcept { ::DeleteFileW(path.c_str()); }

unsigned long ProcessId() noexcept { return ::GetCurrentProcessId(); }

// "<what> <path>: error <code>: <the system's text>".
std::wstring Describe(const wchar_t* what, const std::wstring& path, ErrorCode code) {
    std::wstring text = std::wstring(what) + L" " + path + L": error " + std::to_wstring(code);
    wchar_t* message = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, code, 0, reinterpret_cast<LPWSTR>(&message), 0, nullptr);
    if (length && message) {
        std::wstring words(message, length);
        while (!words.empty() && (words.back() == L'\r' || words.back() == L'\n' || words.back() == L' '))
            words.pop_back();
        if (!words.empty()) text += L": " + words;
    }
    if (message) ::LocalFree(message);
    return text;
}

}  // namespace file_steps

}  // namespace os
