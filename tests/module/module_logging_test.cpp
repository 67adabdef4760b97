// The built module as the host sees it: loaded by path, reached only through
// its two exports, with and without the logging library beside it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "module/module_exports.h"
#include "os/module.h"
#include "os/thread_id.h"
#include "os/utf8.h"
#include "os/wall_time.h"
#include "plugin/module_names.h"
#include "qv/serv_plugin.h"
#include "qv/status.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

namespace {

using testing_support::LoadedModule;

// Asks the agent to initialise without a host: it fails with 5002 after
// logging "Null component manager".
int32_t InitAgentWithoutHost(LoadedModule& module) {
    const std::wstring name = qv::names::AgentName();
    void* object = nullptr;
    if (module.create(name.c_str(), &IServPlugin::iid, &object) != 0) return -1;
    const int32_t status = static_cast<IServPlugin*>(object)->Init(nullptr);
    module.destroy(name.c_str(), object);
    return status;
}

}  // namespace

TEST(ModuleLogging, WritesThroughTheLibraryBesideIt) {
    testing_support::LogCapture capture;
    LoadedModule module;
    ASSERT_TRUE(module.Loaded()) << module.loadError();
    EXPECT_EQ(InitAgentWithoutHost(module), qv::status::kDependencyNotFound);
    EXPECT_TRUE(capture.Contains(logging::kError, L"ServPlugin<struct EnterpriseIntegration::IManager>::GetPlugin",
                                 L"Null component manager"));
}

TEST(ModuleLogging, EachLineSaysWhenAndOnWhichThreadItWasWritten) {
    testing_support::LogCapture capture;
    LoadedModule module;
    ASSERT_TRUE(module.Loaded()) << module.loadError();
    const std::string before = os::Iso8601UtcNow();
    ASSERT_EQ(InitAgentWithoutHost(module), qv::status::kDependencyNotFound);
    const std::string after = os::Iso8601UtcNow();
    const std::vector<testing_support::LogLine> lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    for (const testing_support::LogLine& line : lines) {
        // Written as 2026-11-24T08:45:01.123Z, which sorts as text in time order.
        const std::string time = os::WideToUtf8Lossy(line.time);
        ASSERT_EQ(time.size(), before.size()) << time;
        EXPECT_EQ(time[10], 'T');
        EXPECT_EQ(time.back(), 'Z');
        EXPECT_GE(time, before);
        EXPECT_LE(time, after);
        EXPECT_EQ(line.thread, os::CurrentThreadId());
    }
}

TEST(ModuleLogging, RunsUnchangedWithoutTheLibrary) {
    const std::wstring logName = os::SharedLibraryFileName(L"log");
    if (os::ModuleHandle loaded = os::FindLoadedModule(logName)) {
        os::ReleaseModule(loaded);
        GTEST_SKIP() << "the logging library is already loaded in this process (run this test on its own)";
    }
    testing_support::TempDir alone;
    const std::wstring moduleName = os::SharedLibraryFileName(L"ConditionalRunner");
    std::filesystem::copy_file(std::filesystem::path(os::JoinPath(testing_support::ProgramDirectory(), moduleName)),
                               std::filesystem::path(alone.File(moduleName)));
    {
        LoadedModule module(alone.path());
        ASSERT_TRUE(module.Loaded()) << module.loadError();
        EXPECT_EQ(InitAgentWithoutHost(module), qv::status::kDependencyNotFound);

        void* object = reinterpret_cast<void*>(1);
        EXPECT_EQ(module.create(L"product.conditionalrunner.agent", &IServPlugin::iid, &object), qv::status::kNotFound);
        EXPECT_EQ(object, nullptr);
    }
    EXPECT_EQ(os::FindLoadedModule(logName), nullptr) << "the module must not look for the library elsewhere";
}
