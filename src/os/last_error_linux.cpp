#include <cerrno>
#include <cstring>

#include "os/last_error.h"
#include "os/utf8.h"

namespace os {

uint32_t LastSystemError() noexcept { return static_cast<uint32_t>(errno); }

void ClearLastSystemError() noexcept { errno = 0; }

std::wstring SystemErrorText(uint32_t code) { return Utf8ToWideLossy(std::strerror(static_cast<int>(code))); }

}  // namespace os
