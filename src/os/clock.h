#pragma once
// Process clocks.
#include <cstdint>

namespace os {

// Milliseconds since an arbitrary origin, wrapping at 2^32 (about 49.7 days).
// Differences must be taken as unsigned 32-bit values.
uint32_t TickMs() noexcept;

// Seconds since 1970-01-01 UTC.
int64_t WallSeconds() noexcept;

}  // namespace os
