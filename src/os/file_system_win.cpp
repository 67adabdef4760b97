#include "os/file_system.h"

#include <windows.h>
#include <shlwapi.h>

namespace os {

bool PathExists(const std::wstring& path) noexcept {
    if (path.empty()) return false;
    return ::PathFileExistsW(path.c_str()) != FALSE;
}

}  // namespace os
