#pragma once
// Opening, reading and replacing files by wide path. The replace and append
// protocols are written once (file_io.cpp) over each system's steps
// (file_io_steps.h).
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "os/status.h"

namespace os {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept {
        if (f) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// `mode` as for fopen ("rb", "ab", ...); null on failure.
FilePtr OpenFile(const std::wstring& path, const wchar_t* mode);

enum class ReadResult {
    kRead,     // `bytes` holds the whole file
    kMissing,  // neither the file nor its folder exists
    kFailed,   // it exists (or may) but could not be read; `error` says why
};

// Reads the whole file at `path` into `bytes`. `error` (when given) receives
// a description of the failure for kFailed, naming the system's reason. Any
// thread.
ReadResult ReadWholeFile(const std::wstring& path, std::string& bytes, std::wstring* error = nullptr);

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
