#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

size_t EntriesIn(const std::wstring& folder) {
    const std::filesystem::directory_iterator entries{std::filesystem::path(folder)};
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

TEST(FileIo, AtomicWriteCreatesThenReplacesAndLeavesOnlyTheFile) {
    testing_support::TempDir dir;
    const std::wstring path = dir.File(L"data.json");
    EXPECT_EQ(os::ReadWholeFile(path).status().code(), os::kFileMissing);
    // Binary content of more than one read buffer, then shorter content.
    std::string large(size_t{200} * 1024, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
    for (const std::string& content : {std::string("first"), large, std::string()}) {
        ASSERT_TRUE(os::WriteFileAtomically(path, content));
        const os::Expected<std::string> bytes = os::ReadWholeFile(path);
        ASSERT_TRUE(bytes) << os::WideToUtf8Lossy(bytes.status().message());
        EXPECT_EQ(*bytes, content);
    }
    EXPECT_EQ(EntriesIn(dir.path()), 1u);
}

TEST(FileIo, FailuresNameThePathAndLeaveNothingBehind) {
    testing_support::TempDir dir;
    const std::wstring inMissingFolder = dir.File(L"absent") + L"/data.json";
    const std::wstring folder = dir.File(L"folder");  // a folder where the file should be
    std::filesystem::create_directory(std::filesystem::path(folder));
    EXPECT_EQ(os::ReadWholeFile(inMissingFolder).status().code(), os::kFileMissing);
    const os::Status unreadable = os::ReadWholeFile(folder).status();
    EXPECT_FALSE(unreadable);
    EXPECT_NE(unreadable.code(), os::kFileMissing);
    EXPECT_NE(unreadable.message().find(folder), std::wstring::npos) << os::WideToUtf8Lossy(unreadable.message());
    for (const std::wstring& path : {inMissingFolder, folder}) {
        const os::Status written = os::WriteFileAtomically(path, "x");
        EXPECT_FALSE(written);
        EXPECT_NE(written.code(), 0);
        EXPECT_NE(written.message().find(path), std::wstring::npos) << os::WideToUtf8Lossy(written.message());
    }
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(folder)));
    EXPECT_EQ(EntriesIn(dir.path()), 1u);
}

TEST(FileIo, AReadOnlyFileIsNeitherReplacedNorAppendedTo) {
    namespace fs = std::filesystem;
    testing_support::TempDir dir;
    const std::wstring path = dir.File(L"data.json");
    ASSERT_TRUE(os::WriteFileAtomically(path, "kept\n"));
    fs::permissions(fs::path(path), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    const fs::perms readOnly = fs::status(fs::path(path)).permissions();
    const os::Status replaced = os::WriteFileAtomically(path, "new\n");
    EXPECT_EQ(replaced.code(), qv::status::kAccessDenied);
    EXPECT_EQ(replaced.message(), L"writing " + path + L": the file is read-only");
    EXPECT_EQ(os::AppendDurably(path, "more\n"), replaced);
    const os::Expected<std::string> bytes = os::ReadWholeFile(path);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(*bytes, "kept\n");
    EXPECT_EQ(fs::status(fs::path(path)).permissions(), readOnly);
    EXPECT_EQ(EntriesIn(dir.path()), 1u);
    // The folder can still be emptied.
    fs::permissions(fs::path(path), fs::perms::owner_write, fs::perm_options::add);
}
