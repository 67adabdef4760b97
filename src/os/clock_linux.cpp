#include "os/clock.h"

#include <ctime>

namespace os {

uint32_t TickMs() noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

int64_t WallSeconds() noexcept { return static_cast<int64_t>(::time(nullptr)); }

}  // namespace os
