#include "os/clock.h"

#include <windows.h>
// After windows.h, which it needs.
#include <mmsystem.h>

#include <ctime>

namespace os {

uint32_t TickMs() noexcept { return ::timeGetTime(); }

int64_t WallSeconds() noexcept { return static_cast<int64_t>(::_time64(nullptr)); }

}  // namespace os
