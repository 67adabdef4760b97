#include "os/wall_time.h"

#include <cstdio>

namespace os {

std::string Iso8601Utc(std::chrono::system_clock::time_point when) {
    using namespace std::chrono;
    const auto ms = floor<milliseconds>(when);
    const auto day = floor<days>(ms);
    const year_month_day date{day};
    const hh_mm_ss<milliseconds> time{ms - day};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

}  // namespace os
