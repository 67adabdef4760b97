#pragma once
// The system's steps under the portable file protocols of file_io.cpp (write
// beside, flush, rename; append, flush, cut back), one implementation per
// system in file_io_linux.cpp and file_io_win.cpp. Only file_io.cpp calls
// them. A step answers the system's error code of its failure (errno,
// GetLastError), 0 on success. Any thread; no step keeps state.
#include <cstdint>
#include <string>
#include <string_view>

namespace os::file_steps {

using ErrorCode = uint32_t;

// The system's handle of an open file, as an integer; kNoFile when none.
using NativeFile = intptr_t;
inline constexpr NativeFile kNoFile = -1;

// The code for a path that cannot name a file (EINVAL, ERROR_INVALID_PARAMETER).
ErrorCode InvalidPathCode() noexcept;
// Whether `path` can name a file: not empty, no NUL, text the system takes;
// with `Target::kReplaced` also not ending in a separator.
enum class Target { kAppended, kReplaced };
bool UsablePath(const std::wstring& path, Target target);

// Whether the existing file at `path` is marked read-only: on Linux its mode
// grants nobody writing, or the caller is refused writing it; on Windows it
// has the read-only attribute. False when it is missing.
bool IsReadOnly(const std::wstring& path);

// Creates `path` for writing; fails (AlreadyExists of the code) when it exists.
ErrorCode CreateNew(const std::wstring& path, NativeFile& file);
bool AlreadyExists(ErrorCode code) noexcept;
// Opens the existing file at `path` for writing at its end.
ErrorCode OpenToAppend(const std::wstring& path, NativeFile& file);

ErrorCode WriteAll(NativeFile file, std::string_view bytes);
// The file's length (where an append starts).
ErrorCode LengthOf(NativeFile file, uint64_t& length);
// Cuts the file back to `length`, as far as the system allows.
void CutBack(NativeFile file, uint64_t length) noexcept;
// Returns once the file's bytes (and what is needed to read them) are on the disk.
ErrorCode FlushToDisk(NativeFile file);
// Closes `file`: a write that failed late may show only here.
ErrorCode Close(NativeFile file) noexcept;

// Renames `from` over `to` (replacing it), durably where the system allows.
ErrorCode Replace(const std::wstring& from, const std::wstring& to);
// Flushes the folder entry of `path` where the system needs and allows it; a
// refusal is no failure (the rename is in place all the same).
void FlushFolderOf(const std::wstring& path) noexcept;
void Remove(const std::wstring& path) noexcept;

// The running process's id, for names of temporary files.
unsigned long ProcessId() noexcept;

// "<what> <path>: <the system's text for `code`>".
std::wstring Describe(const wchar_t* what, const std::wstring& path, ErrorCode code);

}  // namespace os::file_steps
