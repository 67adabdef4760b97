#include <gtest/gtest.h>

#include <string>

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
    EXPECT_EQ(lines[0].level, 8);
    EXPECT_EQ(lines[0].nesting, 0);
    EXPECT_EQ(lines[0].function, L"Cls::Fn");
    EXPECT_EQ(lines[0].message, L"Error 5002 getting plugin \"EPSettings\" narrow");
}

TEST(Log, NothingIsWrittenWhileNoHolderKeepsTheFacadeAlive) {
    std::wstring path;
    {
        LogCapture capture;
        path = capture.path();
    }
    ASSERT_FALSE(logging::CLogDLL::Exists());
    logging::Log(logging::kError, L"F", L"dropped");
    LogCapture again;  // a fresh file: the dropped line must not appear anywhere
    logging::Log(logging::kError, L"F", L"kept");
    EXPECT_EQ(again.Messages(), std::vector<std::wstring>{L"kept"});
}

TEST(Log, FacadeLivesFromFirstAcquireToLastRelease) {
    ASSERT_FALSE(logging::CLogDLL::Exists());
    logging::CLogDLL* first = logging::CLogDLL::Acquire();
    logging::CLogDLL* second = logging::CLogDLL::Acquire();
    EXPECT_EQ(first, second);
    EXPECT_TRUE(first->WriterBound());
    logging::CLogDLL::Release();
    EXPECT_TRUE(logging::CLogDLL::Exists());
    logging::CLogDLL::Release();
    EXPECT_FALSE(logging::CLogDLL::Exists());
}

TEST(LogBinding, MissingLibraryLeavesASilentWriter) {
    testing_support::TempDir empty;
    logging::CLogDLL log(os::SharedLibraryFileName(L"cr_absent_log"), empty.path(), nullptr);
    EXPECT_FALSE(log.LibraryLoaded());
    EXPECT_FALSE(log.LoadError().empty());
    EXPECT_FALSE(log.WriterBound());
    EXPECT_EQ(log.Write(0, logging::kError, L"F", L"x %d", 1), logging::kNoInterface);
}

TEST(LogBinding, LibraryWithoutExportsIsToleratedAndSilent) {
    logging::CLogDLL log(os::SharedLibraryFileName(L"no_exports"), ProgramDirectory(), nullptr);
    EXPECT_TRUE(log.LibraryLoaded());
    EXPECT_FALSE(log.WriterBound());
    EXPECT_EQ(log.BoundEntryCount(), 0);
    EXPECT_EQ(log.Write(0, logging::kError, L"F", L"x"), logging::kNoInterface);
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

TEST(CallTrace, WritesEntryAndExitLinesWithElapsedTime) {
    LogCapture capture;
    fakeTick = 1000;
    {
        logging::CallTrace trace(L"ConditionalRunnerAgent::Start", &FakeTick);
        fakeTick = 1042;
    }
    auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 32);
    EXPECT_EQ(lines[0].nesting, 1);
    EXPECT_EQ(lines[0].function, L"ConditionalRunnerAgent::Start");
    EXPECT_EQ(lines[0].message, L"-> ConditionalRunnerAgent::Start()");
    EXPECT_EQ(lines[1].nesting, -1);
    EXPECT_EQ(lines[1].message, L"<- ConditionalRunnerAgent::Start() [42]");
}

TEST(CallTrace, ElapsedTimeSurvivesTheCounterWrap) {
    LogCapture capture;
    fakeTick = 0xFFFFFFF0u;
    {
        logging::CallTrace trace(L"Wrap", &FakeTick);
        fakeTick = 0x10;
    }
    EXPECT_TRUE(capture.Contains(L"<- Wrap() [32]"));
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
    } catch (int) {
    }
    auto messages = capture.Messages(logging::kTrace);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].rfind(L"<- Thrower() [", 0), 0u);
}
