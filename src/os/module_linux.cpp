#include "os/module.h"

#include <dlfcn.h>

#include "os/utf8.h"

namespace os {

std::wstring SharedLibraryFileName(const std::wstring& stem) { return L"lib" + stem + L".so"; }

ModuleHandle LoadModule(const std::wstring& path) noexcept {
    auto narrow = WideToUtf8(path);
    if (!narrow || narrow->empty() || narrow->find('/') == std::string::npos) return nullptr;
    return ::dlopen(narrow->c_str(), RTLD_NOW | RTLD_LOCAL);
}

ModuleHandle FindLoadedModule(const std::wstring& fileName) noexcept {
    auto narrow = WideToUtf8(fileName);
    if (!narrow || narrow->empty()) return nullptr;
    return ::dlopen(narrow->c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_LOCAL);
}

void* FindSymbol(ModuleHandle module, const char* name) noexcept {
    return module ? ::dlsym(module, name) : nullptr;
}

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

}  // namespace os
