#include "os/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <vector>

#include "os/utf8.h"

namespace os {

std::wstring SharedLibraryFileName(const std::wstring& stem) { return L"lib" + stem + L".so"; }

std::wstring ExecutableFileName(const std::wstring& stem) { return stem; }

namespace {
// The reason of the thread's last failed LoadModule.
thread_local std::wstring lastLoadError;

void RememberLoadError(const char* reason) noexcept {
    try {
        lastLoadError = Utf8ToWideLossy(reason ? reason : "dlopen failed");
    } catch (...) {
        lastLoadError.clear();  // allocation failure: no text to give
    }
}
}  // namespace

ModuleHandle LoadModule(const std::wstring& path) noexcept {
    lastLoadError.clear();
    auto narrow = WideToUtf8(path);
    if (!narrow) {
        RememberLoadError("path is not valid text");
        return nullptr;
    }
    // dlopen would search the library path for a name without a slash.
    if (narrow->find('/') == std::string::npos) {
        RememberLoadError(narrow->empty() ? "empty path" : "not a path (a bare name would be searched for)");
        return nullptr;
    }
    ModuleHandle module = ::dlopen(narrow->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) RememberLoadError(::dlerror());
    return module;
}

std::wstring LastModuleError() { return lastLoadError; }

ModuleHandle LoadModuleWithItsDependencies(const std::wstring& path) noexcept { return LoadModule(path); }

uint32_t LastModuleErrorCode() noexcept { return 0; }

ModuleHandle FindLoadedModule(const std::wstring& fileName) noexcept {
    auto narrow = WideToUtf8(fileName);
    if (!narrow || narrow->empty()) return nullptr;
    return ::dlopen(narrow->c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_LOCAL);
}

void* FindSymbol(ModuleHandle module, const char* name) noexcept { return module ? ::dlsym(module, name) : nullptr; }

void ReleaseModule(ModuleHandle module) noexcept {
    if (module) ::dlclose(module);
}

std::wstring ModulePathOf(const void* address) {
    Dl_info info{};
    if (!::dladdr(address, &info) || !info.dli_fname) return {};
    return Utf8ToWideLossy(info.dli_fname);
}

void* ModuleBaseOf(const void* address) noexcept {
    Dl_info info{};
    return ::dladdr(address, &info) ? info.dli_fbase : nullptr;
}

bool PinModuleOf(const void* address) noexcept {
    Dl_info info{};
    if (!::dladdr(address, &info) || !info.dli_fname) return false;
    // Opening the loaded library again with RTLD_NODELETE marks it never to be
    // unloaded; the extra reference this takes is never given back either.
    return ::dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

std::wstring ProgramPath() {
    std::vector<char> buffer(4096);
    const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n <= 0 || static_cast<size_t>(n) >= buffer.size()) return {};
    return Utf8ToWideLossy(std::string_view(buffer.data(), static_cast<size_t>(n)));
}

}  // namespace os
