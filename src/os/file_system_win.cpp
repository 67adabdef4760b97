#include "os/file_system.h"

#include <windows.h>
// After windows.h, which it needs.
#include <shlwapi.h>

namespace os {

bool PathExists(const std::wstring& path) noexcept {
    // The system call would stop at an embedded NUL and test a shorter path.
    if (path.empty() || path.find(L'\0') != std::wstring::npos) return false;
    return ::PathFileExistsW(path.c_str()) != FALSE;
}

}  // namespace os
