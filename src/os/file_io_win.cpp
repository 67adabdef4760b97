#include "os/file_io.h"

#include <windows.h>

#include <atomic>
#include <cstdio>

namespace os {

FilePtr OpenFile(const std::wstring& path, const wchar_t* mode) {
    return FilePtr(::_wfopen(path.c_str(), mode ? mode : L""));
}

namespace {

// "<what> <path>: error <code>: <the system's text>".
void Describe(std::wstring* error, const wchar_t* what, const std::wstring& path, DWORD code) {
    if (!error) return;
    *error = std::wstring(what) + L" " + path + L": error " + std::to_wstring(code);
    wchar_t* text = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, code, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    if (length && text) {
        std::wstring message(text, length);
        while (!message.empty() && (message.back() == L'\r' || message.back() == L'\n' || message.back() == L' '))
            message.pop_back();
        if (!message.empty()) *error += L": " + message;
    }
    if (text) ::LocalFree(text);
}

class Handle {
public:
    explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) noexcept : handle_(handle) {}
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle& operator=(Handle&& other) noexcept {
        Close();
        handle_ = other.handle_;
        other.handle_ = INVALID_HANDLE_VALUE;
        return *this;
    }
    HANDLE get() const noexcept { return handle_; }
    bool valid() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    bool Close() noexcept {
        if (!valid()) return true;
        const BOOL closed = ::CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
        return closed != FALSE;
    }

private:
    HANDLE handle_;
};

bool BadPath(const std::wstring& path) { return path.empty() || path.find(L'\0') != std::wstring::npos; }

}  // namespace

ReadResult ReadWholeFile(const std::wstring& path, std::string& bytes, std::wstring* error) {
    bytes.clear();
    if (BadPath(path)) {
        Describe(error, L"reading", path, ERROR_INVALID_PARAMETER);
        return ReadResult::kFailed;
    }
    Handle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) return ReadResult::kMissing;
        Describe(error, L"opening", path, code);
        return ReadResult::kFailed;
    }
    char buffer[64 * 1024];
    for (;;) {
        DWORD got = 0;
        if (!::ReadFile(file.get(), buffer, sizeof buffer, &got, nullptr)) {
            const DWORD code = ::GetLastError();
            bytes.clear();
            Describe(error, L"reading", path, code);
            return ReadResult::kFailed;
        }
        if (got == 0) break;
        bytes.append(buffer, got);
    }
    return ReadResult::kRead;
}

bool WriteFileAtomically(const std::wstring& path, std::string_view bytes, std::wstring* error) {
    if (BadPath(path) || path.back() == L'\\' || path.back() == L'/') {
        Describe(error, L"writing", path, ERROR_INVALID_PARAMETER);
        return false;
    }
    // A fresh name beside the target keeps the rename within one volume.
    static std::atomic<unsigned> counter{0};
    std::wstring temporary;
    Handle file;
    DWORD code = ERROR_SUCCESS;
    for (int attempt = 0; attempt < 100 && !file.valid(); ++attempt) {
        temporary = path + L".tmp-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(counter++);
        file = Handle(
            ::CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        code = ::GetLastError();
        // A name left by an earlier process: try the next.
        if (!file.valid() && code != ERROR_FILE_EXISTS && code != ERROR_ALREADY_EXISTS) break;
    }
    if (!file.valid()) {
        Describe(error, L"creating a temporary file beside", path, code);
        return false;
    }
    auto fail = [&](const wchar_t* what, DWORD failure) {
        file.Close();
        ::DeleteFileW(temporary.c_str());
        Describe(error, what, path, failure);
        return false;
    };
    while (!bytes.empty()) {
        const DWORD chunk = static_cast<DWORD>(bytes.size() < 0x40000000u ? bytes.size() : 0x40000000u);
        DWORD written = 0;
        if (!::WriteFile(file.get(), bytes.data(), chunk, &written, nullptr))
            return fail(L"writing the temporary file for", ::GetLastError());
        bytes.remove_prefix(written);
    }
    if (!::FlushFileBuffers(file.get())) return fail(L"flushing the temporary file for", ::GetLastError());
    if (!file.Close()) return fail(L"closing the temporary file for", ::GetLastError());
    // Write-through: the call returns once the rename is on the disk.
    if (!::MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return fail(L"renaming the temporary file to", ::GetLastError());
    return true;
}

bool AppendDurably(const std::wstring& path, std::string_view bytes, std::wstring* error) {
    if (BadPath(path)) {
        Describe(error, L"appending to", path, ERROR_INVALID_PARAMETER);
        return false;
    }
    Handle file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) {
        Describe(error, L"opening for appending", path, ::GetLastError());
        return false;
    }
    LARGE_INTEGER oldLength{};
    const bool atEnd = ::SetFilePointerEx(file.get(), LARGE_INTEGER{}, &oldLength, FILE_END) != FALSE;
    auto fail = [&](const wchar_t* what, DWORD code) {
        if (atEnd && ::SetFilePointerEx(file.get(), oldLength, nullptr, FILE_BEGIN)) ::SetEndOfFile(file.get());
        Describe(error, what, path, code);
        return false;
    };
    if (!atEnd) return fail(L"finding the end of", ::GetLastError());
    while (!bytes.empty()) {
        const DWORD chunk = static_cast<DWORD>(bytes.size() < 0x40000000u ? bytes.size() : 0x40000000u);
        DWORD written = 0;
        if (!::WriteFile(file.get(), bytes.data(), chunk, &written, nullptr))
            return fail(L"appending to", ::GetLastError());
        bytes.remove_prefix(written);
    }
    if (!::FlushFileBuffers(file.get())) return fail(L"flushing", ::GetLastError());
    if (!file.Close()) return fail(L"closing", ::GetLastError());
    return true;
}

}  // namespace os
