#pragma once
// Counts of the calling process's operating-system resources, used to check
// that threads and handles are given back.
#include <cstddef>

namespace os {

// Threads currently alive in this process; 0 when the system cannot tell.
size_t ProcessThreadCount() noexcept;

// Open kernel handles (Windows) or file descriptors (Linux) of this process;
// 0 when the system cannot tell.
size_t ProcessHandleCount() noexcept;

}  // namespace os
