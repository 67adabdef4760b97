#pragma once
// Identity of the calling thread as the operating system numbers it.
#include <cstdint>

namespace os {

// The operating system's id of the calling thread (never 0 for a running
// thread). Stable for the thread's lifetime; ids may be reused afterwards.
// Callable from any thread.
uint32_t CurrentThreadId() noexcept;

}  // namespace os
