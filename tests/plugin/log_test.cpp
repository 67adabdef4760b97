#include <gtest/gtest.h>

#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "support/log_capture.h"

using testing_support::LogCapture;

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
