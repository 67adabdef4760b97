#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "os/file_io.h"
#include "support/log_capture.h"

namespace {

using testing_support::TempDir;

std::vector<std::wstring> Entries(const std::wstring& folder) {
    std::vector<std::wstring> names;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(folder)))
        names.push_back(entry.path().filename().wstring());
    return names;
}

std::string Read(const std::wstring& path) {
    std::string bytes;
    EXPECT_EQ(os::ReadWholeFile(path, bytes), os::ReadResult::kRead);
    return bytes;
}

}  // namespace

TEST(FileIo, AtomicWriteCreatesThenReplacesAndLeavesOnlyTheFile) {
    TempDir dir;
    const std::wstring path = dir.File(L"data.json");
    std::string bytes;
    EXPECT_EQ(os::ReadWholeFile(path, bytes), os::ReadResult::kMissing);

    ASSERT_TRUE(os::WriteFileAtomically(path, "first, longer content"));
    EXPECT_EQ(Read(path), "first, longer content");
    // Binary content of more than one read buffer comes back unchanged.
    std::string large(200 * 1024, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
    ASSERT_TRUE(os::WriteFileAtomically(path, large));
    EXPECT_EQ(Read(path), large);
    ASSERT_TRUE(os::WriteFileAtomically(path, ""));
    EXPECT_EQ(Read(path), "");
    EXPECT_EQ(Entries(dir.path()), std::vector<std::wstring>{L"data.json"});
}

TEST(FileIo, FailuresNameThePathAndLeaveNothingBehind) {
    TempDir dir;
    const std::wstring inMissingFolder = dir.File(L"absent") + L"/data.json";
    std::wstring error;
    EXPECT_FALSE(os::WriteFileAtomically(inMissingFolder, "x", &error));
    EXPECT_NE(error.find(inMissingFolder), std::wstring::npos) << error;
    std::string bytes;
    EXPECT_EQ(os::ReadWholeFile(inMissingFolder, bytes), os::ReadResult::kMissing);

    // A folder in the file's place: it can be neither read nor replaced.
    const std::wstring folder = dir.File(L"folder");
    std::filesystem::create_directory(std::filesystem::path(folder));
    error.clear();
    EXPECT_EQ(os::ReadWholeFile(folder, bytes, &error), os::ReadResult::kFailed);
    EXPECT_NE(error.find(folder), std::wstring::npos) << error;
    error.clear();
    EXPECT_FALSE(os::WriteFileAtomically(folder, "x", &error));
    EXPECT_NE(error.find(folder), std::wstring::npos) << error;
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(folder)));
    EXPECT_EQ(Entries(dir.path()), std::vector<std::wstring>{L"folder"});
}
