#include "os/module.h"

#include <windows.h>

#include <vector>

namespace os {

std::wstring SharedLibraryFileName(const std::wstring& stem) { return stem + L".dll"; }

std::wstring ExecutableFileName(const std::wstring& stem) { return stem + L".exe"; }

namespace {
// The reason of the thread's last failed LoadModule.
thread_local std::wstring lastLoadError;
thread_local DWORD lastLoadErrorCode = 0;

// "error 126: <the system's text>", or only the code when there is no text.
void RememberLoadError(DWORD code) noexcept {
    lastLoadErrorCode = code;
    wchar_t* text = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, code, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    try {
        lastLoadError = L"error " + std::to_wstring(code);
        if (length && text) {
            std::wstring message(text, length);
            while (!message.empty() && (message.back() == L'\r' || message.back() == L'\n' || message.back() == L' '))
                message.pop_back();
            if (!message.empty()) lastLoadError += L": " + message;
        }
    } catch (...) {
        lastLoadError.clear();  // allocation failure: no text to give
    }
    if (text) ::LocalFree(text);
}
}  // namespace

ModuleHandle LoadModule(const std::wstring& path) noexcept {
    lastLoadError.clear();
    lastLoadErrorCode = 0;
    if (path.empty()) {
        RememberLoadError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    HMODULE module = ::LoadLibraryW(path.c_str());
    if (!module) RememberLoadError(::GetLastError());
    return module;
}

std::wstring LastModuleError() { return lastLoadError; }

ModuleHandle LoadModuleWithItsDependencies(const std::wstring& path) noexcept {
    lastLoadError.clear();
    lastLoadErrorCode = 0;
    HMODULE kernel32 = ::GetModuleHandleW(L"Kernel32.dll");
    const bool searchFlags = kernel32 && ::GetProcAddress(kernel32, "SetDefaultDllDirectories");
    const DWORD flags = searchFlags ? (LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS)
                                    : LOAD_WITH_ALTERED_SEARCH_PATH;
    static_assert((LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS) == 0x1100);
    HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, flags);
    if (!module) RememberLoadError(::GetLastError());
    return module;
}

uint32_t LastModuleErrorCode() noexcept { return lastLoadErrorCode; }

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

bool PinModuleOf(const void* address) noexcept {
    HMODULE module = nullptr;
    return ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                                static_cast<LPCWSTR>(address), &module) != 0;
}

std::wstring ModulePathOf(const void* address) {
    HMODULE module = static_cast<HMODULE>(ModuleBaseOf(address));
    if (!module) return {};
    std::vector<wchar_t> buffer(32767);
    DWORD n = ::GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
    return std::wstring(buffer.data(), n);
}

std::wstring ProgramPath() {
    std::vector<wchar_t> buffer(32767);
    DWORD n = ::GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    return std::wstring(buffer.data(), n);
}

}  // namespace os
