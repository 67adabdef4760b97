#include "os/environment.h"

#include <cstdlib>

#include "os/utf8.h"

namespace os {

std::optional<std::wstring> GetEnv(const std::wstring& name) {
    const char* value = std::getenv(WideToUtf8Lossy(name).c_str());
    if (!value) return std::nullopt;
    return Utf8ToWideLossy(value);
}

void SetEnv(const std::wstring& name, const std::optional<std::wstring>& value) {
    const std::string key = WideToUtf8Lossy(name);
    if (value)
        ::setenv(key.c_str(), WideToUtf8Lossy(*value).c_str(), 1);
    else
        ::unsetenv(key.c_str());
}

bool RunningUnderWine() noexcept { return false; }

}  // namespace os
