#include "os/file_system.h"

#include <windows.h>
#include <shlwapi.h>

#include "os/path.h"

namespace os {

const wchar_t kPathSeparator = L'\\';
const wchar_t kPathSeparators[] = L"\\/";

bool PathExists(const std::wstring& path) noexcept {
    if (path.empty()) return false;
    return ::PathFileExistsW(path.c_str()) != FALSE;
}

}  // namespace os
