#pragma once
// The calling thread's last error code of the system, for messages and
// statuses that report "the system's error": GetLastError() on Windows,
// errno on Linux. Callable from any thread; each thread has its own.
#include <cstdint>
#include <string>

namespace os {

uint32_t LastSystemError() noexcept;
// Sets it to 0, before a call that may fail without setting it (Linux's
// dlsym leaves errno alone), so that a stale code is not reported.
void ClearLastSystemError() noexcept;
// The system's own text for error `code`: "error 5 Access is denied." on
// Windows, strerror's text on Linux.
std::wstring SystemErrorText(uint32_t code);

}  // namespace os
