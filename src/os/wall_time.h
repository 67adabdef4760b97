#pragma once
// Wall-clock times written for people and programs alike: ISO 8601 in UTC
// with milliseconds, "2026-11-24T08:45:01.123Z". Portable; any thread.
#include <chrono>
#include <string>

namespace os {

// `when` as "YYYY-MM-DDTHH:MM:SS.mmmZ" (UTC; years 0 to 9999).
std::string Iso8601Utc(std::chrono::system_clock::time_point when);

// The current time, written as above.
inline std::string Iso8601UtcNow() { return Iso8601Utc(std::chrono::system_clock::now()); }

}  // namespace os
