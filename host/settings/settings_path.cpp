#include "host/settings/settings_path.h"

#include <utility>

#include "host/settings/settings_store.h"
#include "host/settings/tree.h"

namespace host::settings {

bool ParsePath(const wchar_t* path, std::vector<std::wstring>& segments) {
    segments.clear();
    if (!path || path[0] != L'/') return false;
    const std::wstring text(path);
    if (text.size() == 1) return true;
    size_t start = 1;
    for (;;) {
        const size_t end = text.find(L'/', start);
        std::wstring segment = text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start);
        if (!ValidChildName(segment) || segments.size() == SettingsStore::kMaxDepth) return false;
        segments.push_back(std::move(segment));
        if (end == std::wstring::npos) return true;
        start = end + 1;
    }
}

}  // namespace host::settings
