#include "os/file_system.h"

#include <sys/stat.h>

#include "os/utf8.h"

namespace os {

bool PathExists(const std::wstring& path) noexcept {
    // The system call would stop at an embedded NUL and test a shorter path.
    if (path.empty() || path.find(L'\0') != std::wstring::npos) return false;
    try {
        const std::optional<std::string> narrow = WideToUtf8(path);
        if (!narrow) return false;
        struct stat info;
        return ::stat(narrow->c_str(), &info) == 0;
    } catch (...) {
        return false;  // allocation failure
    }
}

}  // namespace os
