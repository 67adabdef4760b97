#include <windows.h>

#include "os/last_error.h"

namespace os {

uint32_t LastSystemError() noexcept { return ::GetLastError(); }

void ClearLastSystemError() noexcept { ::SetLastError(ERROR_SUCCESS); }

}  // namespace os
