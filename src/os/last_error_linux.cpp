#include <cerrno>

#include "os/last_error.h"

namespace os {

uint32_t LastSystemError() noexcept { return static_cast<uint32_t>(errno); }

void ClearLastSystemError() noexcept { errno = 0; }

}  // namespace os
