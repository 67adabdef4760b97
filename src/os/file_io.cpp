#include "os/file_io.h"

#include <atomic>

#include "os/file_io_steps.h"
#include "qv/status.h"

namespace os {

namespace {

namespace steps = file_steps;

// An open file of the protocols below, closed when it goes out of scope.
class OpenedFile {
public:
    OpenedFile() = default;
    ~OpenedFile() { static_cast<void>(Close()); }
    OpenedFile(const OpenedFile&) = delete;
    OpenedFile& operator=(const OpenedFile&) = delete;

    steps::NativeFile& Receive() noexcept { return file_; }
    steps::NativeFile get() const noexcept { return file_; }
    bool valid() const noexcept { return file_ != steps::kNoFile; }
    steps::ErrorCode Close() noexcept {
        if (!valid()) return 0;
        const steps::ErrorCode code = steps::Close(file_);
        file_ = steps::kNoFile;
        return code;
    }

private:
    steps::NativeFile file_ = steps::kNoFile;
};

Status Fail(const wchar_t* what, const std::wstring& path, steps::ErrorCode code) {
    const int32_t status = code != 0 ? static_cast<int32_t>(code) : qv::status::kFunctionFailed;
    return Status::Failure(status, steps::Describe(what, path, code));
}

// A read-only file is the user's decision to keep it as it is: neither
// replaced nor appended to, with the same reason either way.
Status RefuseReadOnly(const std::wstring& path) {
    return Status::Failure(qv::status::kAccessDenied, L"writing " + path + L": the file is read-only");
}

}  // namespace

Status WriteFileAtomically(const std::wstring& path, std::string_view bytes) {
    if (!steps::UsablePath(path, steps::Target::kReplaced)) return Fail(L"writing", path, steps::InvalidPathCode());
    if (steps::IsReadOnly(path)) return RefuseReadOnly(path);
    // A fresh name beside the target keeps the rename within one file system.
    static std::atomic<unsigned> counter{0};
    std::wstring temporary;
    OpenedFile file;
    steps::ErrorCode code = 0;
    for (int attempt = 0; attempt < 100 && !file.valid(); ++attempt) {
        temporary = path + L".tmp-" + std::to_wstring(steps::ProcessId()) + L"-" + std::to_wstring(counter++);
        code = steps::CreateNew(temporary, file.Receive());
        if (code != 0 && !steps::AlreadyExists(code)) break;  // a name left by an earlier process: try the next
    }
    if (!file.valid()) return Fail(L"creating a temporary file beside", path, code);
    auto fail = [&](const wchar_t* what, steps::ErrorCode failure) {
        static_cast<void>(file.Close());
        steps::Remove(temporary);
        return Fail(what, path, failure);
    };
    if (const auto failure = steps::WriteAll(file.get(), bytes))
        return fail(L"writing the temporary file for", failure);
    if (const auto failure = steps::FlushToDisk(file.get())) return fail(L"flushing the temporary file for", failure);
    if (const auto failure = file.Close()) return fail(L"closing the temporary file for", failure);
    if (const auto failure = steps::Replace(temporary, path)) return fail(L"renaming the temporary file to", failure);
    steps::FlushFolderOf(path);
    return Status::Ok();
}

Status AppendDurably(const std::wstring& path, std::string_view bytes) {
    if (!steps::UsablePath(path, steps::Target::kAppended))
        return Fail(L"appending to", path, steps::InvalidPathCode());
    if (steps::IsReadOnly(path)) return RefuseReadOnly(path);
    OpenedFile file;
    if (const auto failure = steps::OpenToAppend(path, file.Receive()))
        return Fail(L"opening for appending", path, failure);
    uint64_t oldLength = 0;
    const steps::ErrorCode atEnd = steps::LengthOf(file.get(), oldLength);
    auto fail = [&](const wchar_t* what, steps::ErrorCode failure) {
        if (atEnd == 0) steps::CutBack(file.get(), oldLength);
        return Fail(what, path, failure);
    };
    if (atEnd != 0) return fail(L"finding the end of", atEnd);
    if (const auto failure = steps::WriteAll(file.get(), bytes)) return fail(L"appending to", failure);
    if (const auto failure = steps::FlushToDisk(file.get())) return fail(L"flushing", failure);
    if (const auto failure = file.Close()) return fail(L"closing", failure);
    return Status::Ok();
}

}  // namespace os
