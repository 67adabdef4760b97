#pragma once
// Counts of the calling process's operating-system resources, used to check
// that threads and handles are given back, and whether the process is ending.
#include <cstddef>

namespace os {

// Threads currently alive in this process; 0 when the system cannot tell.
size_t ProcessThreadCount() noexcept;

// Open kernel handles (Windows) or file descriptors (Linux) of this process;
// 0 when the system cannot tell.
size_t ProcessHandleCount() noexcept;

// Whether the process is ending while this module's static objects are being
// destroyed. Windows: the system has then already ended every other thread,
// wherever it was (holding a lock, half-way through an update), so a static
// destructor must neither wait for them nor clean up after them. Linux: always
// false; there the other threads still run while `exit` destroys static
// objects, and cleaning up with them is as safe as at any other time.
bool ProcessIsEnding() noexcept;

}  // namespace os
