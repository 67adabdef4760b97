#include "os/module.h"

#include <windows.h>

#include <vector>

namespace os {

std::wstring SharedLibraryFileName(const std::wstring& stem) { return stem + L".dll"; }

ModuleHandle LoadModule(const std::wstring& path) noexcept {
    if (path.empty()) return nullptr;
    return ::LoadLibraryW(path.c_str());
}

ModuleHandle FindLoadedModule(const std::wstring& fileName) noexcept {
    HMODULE module = nullptr;
    // Flags 0: the library's reference count is raised.
    if (!::GetModuleHandleExW(0, fileName.c_str(), &module)) return nullptr;
    return module;
}

void* FindSymbol(ModuleHandle module, const char* name) noexcept {
    return module ? reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(module), name)) : nullptr;
}

void ReleaseModule(ModuleHandle module) noexcept {
    if (module) ::FreeLibrary(static_cast<HMODULE>(module));
}

void* ModuleBaseOf(const void* address) noexcept {
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         static_cast<LPCWSTR>(address), &module);
    return module;
}

std::wstring ModulePathOf(const void* address) {
    HMODULE module = static_cast<HMODULE>(ModuleBaseOf(address));
    if (!module) return {};
    std::vector<wchar_t> buffer(32767);
    DWORD n = ::GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
    return std::wstring(buffer.data(), n);
}

}  // namespace os
