#include "os/thread_id.h"

#include <windows.h>

namespace os {

uint32_t CurrentThreadId() noexcept { return static_cast<uint32_t>(::GetCurrentThreadId()); }

}  // namespace os
