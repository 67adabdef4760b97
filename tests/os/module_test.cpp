#include <gtest/gtest.h>

#include <utility>

#include "os/environment.h"
#include "os/module.h"
#include "os/utf8.h"
#include "support/log_capture.h"

TEST(Module, NeverSearchesForABareNameAndReportsMissingFiles) {
    EXPECT_EQ(os::FindLoadedModule(os::SharedLibraryFileName(L"cr_never_built")), nullptr);
    testing_support::TempDir empty;
    EXPECT_EQ(os::LoadModule(empty.File(os::SharedLibraryFileName(L"logwrite_only"))), nullptr);
    const std::wstring missing = os::LastModuleError();
    EXPECT_FALSE(missing.empty());
    EXPECT_EQ(os::LoadModule(L""), nullptr);
    EXPECT_FALSE(os::LastModuleError().empty());

    // A later success clears the reason; the loaded copy is then found by file name.
    const std::wstring name = os::SharedLibraryFileName(L"logwrite_only");
    os::ModuleHandle module = os::LoadModule(os::JoinPath(testing_support::ProgramDirectory(), name));
    ASSERT_NE(module, nullptr) << os::LastModuleError();
    EXPECT_EQ(os::LastModuleError(), L"");
    EXPECT_NE(os::FindSymbol(module, "LogWrite"), nullptr);
    EXPECT_EQ(os::FindSymbol(module, "LogInit"), nullptr);
    os::ModuleHandle again = os::FindLoadedModule(name);
    EXPECT_EQ(again, module);
    os::ReleaseModule(again);
    os::ReleaseModule(module);
}

TEST(LoadedModule, HoldsTheLibraryUntilItsLastHandleGoesAndKeepsTheReasonOfAFailedLoad) {
    const std::wstring name = os::SharedLibraryFileName(L"logwrite_only");
    testing_support::TempDir empty;
    const os::LoadedModule missing = os::LoadedModule::Load(empty.File(name));
    EXPECT_FALSE(missing);
    EXPECT_FALSE(missing.status());
    EXPECT_FALSE(missing.status().message().empty());
    EXPECT_EQ(missing.Function<void (*)()>("LogWrite"), nullptr);
    const os::Status reason = missing.status();
    {
        os::LoadedModule loaded = os::LoadedModule::Load(os::JoinPath(testing_support::ProgramDirectory(), name));
        ASSERT_TRUE(loaded) << os::WideToUtf8Lossy(loaded.status().message());
        EXPECT_EQ(loaded.status(), os::Status::Ok());
        // A later load on the thread leaves what the failed one carries.
        EXPECT_EQ(missing.status(), reason);
        EXPECT_NE(loaded.Function<void (*)()>("LogWrite"), nullptr);
        const os::LoadedModule moved = std::move(loaded);
        EXPECT_FALSE(loaded);  // NOLINT(bugprone-use-after-move): the moved-from state is tested
        EXPECT_NE(moved.Function<void (*)()>("LogWrite"), nullptr);
        EXPECT_TRUE(os::LoadedModule::FindLoaded(name));
    }
    // Given back with its last handle.
    const os::LoadedModule after = os::LoadedModule::FindLoaded(name);
    EXPECT_FALSE(after);
    EXPECT_EQ(after.status(), os::Status::Ok());
}

TEST(Module, KnowsWhereTheRunningBinaryLives) {
    static const int anchor = 0;
    const std::wstring path = os::ModulePathOf(&anchor);
    EXPECT_NE(path.find(L"test_os"), std::wstring::npos);
    EXPECT_NE(os::ModuleBaseOf(&anchor), nullptr);
    EXPECT_EQ(os::DirectoryOf(os::JoinPath(L"dir", L"file")), L"dir");
    EXPECT_EQ(os::DirectoryOf(L"/a/b"), L"/a");  // '/' separates on every platform
    EXPECT_EQ(os::DirectoryOf(L"file"), L"");
}

TEST(Environment, SetAndRemoveVariables) {
    os::SetEnv(L"CR_TEST_VARIABLE", std::wstring(L"value \u00E9"));
    EXPECT_EQ(os::GetEnv(L"CR_TEST_VARIABLE"), std::wstring(L"value \u00E9"));
    os::SetEnv(L"CR_TEST_VARIABLE", std::nullopt);
    EXPECT_FALSE(os::GetEnv(L"CR_TEST_VARIABLE"));
}
