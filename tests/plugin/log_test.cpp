#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "os/module.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "support/log_capture.h"

using testing_support::LogCapture;
using testing_support::ProgramDirectory;

TEST(Log, WritesFormattedLinesThroughTheLibraryBesideTheModule) {
    LogCapture capture;
    logging::Log(logging::kWarning, L"Cls::Fn", L"Error %d getting plugin \"%s\" %S", 5002, L"EPSettings", "narrow");
    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, logging::kWarning);
    EXPECT_EQ(lines[0].nesting, 0);
    EXPECT_EQ(lines[0].function, L"Cls::Fn");
    EXPECT_EQ(lines[0].message, L"Error 5002 getting plugin \"EPSettings\" narrow");
}

// The façade lives from the first acquire to the last release; while none
// holds it, nothing is written.
TEST(Log, FacadeLivesFromFirstAcquireToLastReleaseAndIsSilentOutside) {
    ASSERT_FALSE(logging::CLogDLL::Exists());
    logging::CLogDLL* first = logging::CLogDLL::Acquire();
    logging::CLogDLL* second = logging::CLogDLL::Acquire();
    EXPECT_EQ(first, second);
    EXPECT_TRUE(first->WriterBound());
    logging::CLogDLL::Release();
    EXPECT_TRUE(logging::CLogDLL::Exists());
    logging::CLogDLL::Release();
    EXPECT_FALSE(logging::CLogDLL::Exists());
    logging::Log(logging::kError, L"F", L"dropped");
    LogCapture again;  // a fresh file: the dropped line must not appear anywhere
    logging::Log(logging::kError, L"F", L"kept");
    EXPECT_EQ(again.Messages(), std::vector<std::wstring>{L"kept"});
}

// A library that is missing or lacks the exports leaves a silent writer.
TEST(LogBinding, AMissingLibraryOrOneWithoutExportsLeavesASilentWriter) {
    testing_support::TempDir empty;
    for (auto [name, directory, loads] :
         {std::tuple{L"cr_absent_log", empty.path(), false}, std::tuple{L"no_exports", ProgramDirectory(), true}}) {
        logging::CLogDLL log(os::SharedLibraryFileName(name), directory, nullptr);
        EXPECT_EQ(log.LibraryLoaded(), loads) << name;
        EXPECT_EQ(log.LoadError().empty(), loads) << name;
        EXPECT_FALSE(log.WriterBound());
        EXPECT_EQ(log.BoundEntryCount(), 0);
        EXPECT_EQ(log.Write(0, logging::kError, L"F", L"x %d", 1), logging::kNoInterface);
    }
}

TEST(LogBinding, LibraryWithOnlyLogWriteIsBoundAndUsed) {
    LogCapture capture;  // names the file the stand-in library appends to
    {
        logging::CLogDLL log(os::SharedLibraryFileName(L"logwrite_only"), ProgramDirectory(), nullptr);
        EXPECT_TRUE(log.WriterBound());
        EXPECT_EQ(log.BoundEntryCount(), 1);
        EXPECT_EQ(log.Write(0, logging::kDetail, L"Only::Fn", L"through %s"), 0);
    }  // release skips every entry the library lacks
    // The stand-in writes the unformatted format string, so the line proves which library wrote it.
    EXPECT_TRUE(testing_support::FileContains(capture.path(), L"only\t16\tOnly::Fn\tthrough %s"));
}

TEST(LogBinding, AlreadyLoadedLibraryIsFoundWithoutItsDirectory) {
    LogCapture capture;  // the façade has loaded the reference library
    logging::CLogDLL log(os::SharedLibraryFileName(L"log"), L"", nullptr);
    EXPECT_TRUE(log.LibraryLoaded());
    EXPECT_TRUE(log.WriterBound());
    EXPECT_GE(log.BoundEntryCount(), 3);
}

namespace {
uint32_t fakeTick = 0;
uint32_t FakeTick() { return fakeTick; }
}  // namespace

// The elapsed time survives the wrap of the tick counter.
TEST(CallTrace, WritesEntryAndExitLinesWithElapsedTime) {
    for (auto [start, end, elapsed] : {std::tuple{1000u, 1042u, L"42"}, std::tuple{0xFFFFFFF0u, 0x10u, L"32"}}) {
        LogCapture capture;
        fakeTick = start;
        {
            logging::CallTrace trace(L"ConditionalRunnerAgent::Start", &FakeTick);
            fakeTick = end;
        }
        auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].level, logging::kTrace);
        EXPECT_EQ(lines[0].nesting, 1);
        EXPECT_EQ(lines[0].function, L"ConditionalRunnerAgent::Start");
        EXPECT_EQ(lines[0].message, L"-> ConditionalRunnerAgent::Start()");
        EXPECT_EQ(lines[1].nesting, -1);
        EXPECT_EQ(lines[1].message, L"<- ConditionalRunnerAgent::Start() [" + std::wstring(elapsed) + L"]");
    }
}

TEST(CallTrace, LongNamesAreCutNotRejected) {
    const std::wstring name(300, L'n');
    logging::CallTrace trace(name.c_str());
    EXPECT_EQ(std::wstring(trace.text()), std::wstring(257, L'n') + L"()");
    EXPECT_EQ(std::wstring(trace.function()), std::wstring(259, L'n'));
}

TEST(CallTrace, ExitLineIsWrittenWhenTheScopeUnwinds) {
    LogCapture capture;
    try {
        logging::CallTrace trace(L"Thrower");
        throw 1;
    } catch (int) {}
    auto messages = capture.Messages(logging::kTrace);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].rfind(L"<- Thrower() [", 0), 0u);
}
