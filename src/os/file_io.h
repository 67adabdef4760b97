#pragma once
// Opening, reading and replacing files by wide path. The replace and append
// protocols are written once (file_io.cpp) over each system's steps
// (file_io_steps.h).
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "os/status.h"
#include "qv/status.h"

namespace os {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept {
        if (f) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// `mode` as for fopen ("rb", "ab", ...); null on failure.
FilePtr OpenFile(const std::wstring& path, const wchar_t* mode);

// The code of a read that failed because neither the file nor its folder
// exists: apart from every other failure, whose code is the system's error.
inline constexpr int32_t kFileMissing = qv::status::kPathNotFound;

// Reads the whole file at `path`. A failure's message names the path and the
// system's reason; its code is kFileMissing when the file is missing. Any
// thread.
Expected<std::string> ReadWholeFile(const std::wstring& path);

// Replaces the file at `path` with `bytes` so that, whatever instant the
// process or the machine stops at, `path` holds either its old content or
// the new one in full: the bytes go to a new file in the same folder, which
// is flushed to the disk and then renamed over `path`. The folder must exist.
// On failure `path` is unchanged, no temporary file is left behind, and the
// status holds the system's error with the step that failed and the system's
// reason. A file at `path` marked read-only is never replaced (kAccessDenied,
// "writing <path>: the file is read-only"). Any thread; calls for the same
// path are the caller's to order (the last rename wins).
Status WriteFileAtomically(const std::wstring& path, std::string_view bytes);

// Appends `bytes` to the existing file at `path` and flushes them to the
// disk before returning success. A stop of the process or the machine
// meanwhile may leave any prefix of `bytes` at the end of the file: a reader
// must be able to recognise a partial append. On failure (as above) the file
// is cut back to its old length where the system allows it. A read-only file
// is refused as by WriteFileAtomically, even where the system would let the
// caller write it (root on Linux). Any thread; the caller orders appends to
// the same file.
Status AppendDurably(const std::wstring& path, std::string_view bytes);

}  // namespace os
