#include <gtest/gtest.h>

#include <chrono>

#include "os/wall_time.h"

namespace {

using namespace std::chrono;

TEST(WallTime, WritesUtcWithMillisecondsAndZeroPadding) {
    EXPECT_EQ(os::Iso8601Utc(system_clock::time_point{}), "1970-01-01T00:00:00.000Z");
    const sys_days day = year{2026} / November / 24;
    EXPECT_EQ(os::Iso8601Utc(day + 8h + 5min + 1s + 23ms), "2026-11-24T08:05:01.023Z");
    // The last millisecond of a leap day, and the turn of a year.
    EXPECT_EQ(os::Iso8601Utc(sys_days{year{2024} / February / 29} + 23h + 59min + 59s + 999ms),
              "2024-02-29T23:59:59.999Z");
    EXPECT_EQ(os::Iso8601Utc(sys_days{year{2027} / January / 1} - 1us), "2026-12-31T23:59:59.999Z");
}

}  // namespace
