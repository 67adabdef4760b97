#include "os/module.h"

#include <utility>

namespace os {

LoadedModule::LoadedModule(LoadedModule&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)),
      error_(std::move(other.error_)),
      errorCode_(std::exchange(other.errorCode_, 0)) {
    other.error_.clear();
}

LoadedModule& LoadedModule::operator=(LoadedModule&& other) noexcept {
    if (this != &other) {
        Reset();
        handle_ = std::exchange(other.handle_, nullptr);
        error_ = std::move(other.error_);
        other.error_.clear();
        errorCode_ = std::exchange(other.errorCode_, 0);
    }
    return *this;
}

LoadedModule LoadedModule::FromLoad(ModuleHandle handle) {
    LoadedModule loaded(handle);
    if (!handle) {
        loaded.error_ = LastModuleError();
        loaded.errorCode_ = LastModuleErrorCode();
    }
    return loaded;
}

LoadedModule LoadedModule::Load(const std::wstring& path) { return FromLoad(LoadModule(path)); }

LoadedModule LoadedModule::LoadWithItsDependencies(const std::wstring& path) {
    return FromLoad(LoadModuleWithItsDependencies(path));
}

LoadedModule LoadedModule::FindLoaded(const std::wstring& fileName) { return LoadedModule(FindLoadedModule(fileName)); }

void LoadedModule::Reset() noexcept {
    ReleaseModule(std::exchange(handle_, nullptr));
    error_.clear();
    errorCode_ = 0;
}

}  // namespace os
