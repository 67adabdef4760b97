#include "os/path.h"

namespace os {

std::wstring DirectoryOf(const std::wstring& path) {
    const auto pos = path.find_last_of(kPathSeparators);
    return pos == std::wstring::npos ? std::wstring() : path.substr(0, pos);
}

std::wstring JoinPath(const std::wstring& directory, const std::wstring& name) {
    return directory + kPathSeparator + name;
}

}  // namespace os
