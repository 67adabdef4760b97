#include "os/environment.h"

#include <windows.h>

#include <vector>

namespace os {

std::optional<std::wstring> GetEnv(const std::wstring& name) {
    DWORD size = ::GetEnvironmentVariableW(name.c_str(), nullptr, 0);
    if (size == 0) return std::nullopt;
    std::vector<wchar_t> buffer(size);
    DWORD n = ::GetEnvironmentVariableW(name.c_str(), buffer.data(), size);
    if (n >= size) return std::nullopt;
    return std::wstring(buffer.data(), n);
}

void SetEnv(const std::wstring& name, const std::optional<std::wstring>& value) {
    ::SetEnvironmentVariableW(name.c_str(), value ? value->c_str() : nullptr);
}

bool RunningUnderWine() noexcept {
    HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

}  // namespace os
