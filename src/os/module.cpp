#include "os/module.h"

#include <utility>

#include "qv/status.h"

namespace os {

LoadedModule::LoadedModule(LoadedModule&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), status_(std::exchange(other.status_, Status::Ok())) {}

LoadedModule& LoadedModule::operator=(LoadedModule&& other) noexcept {
    if (this != &other) {
        Reset();
        handle_ = std::exchange(other.handle_, nullptr);
        status_ = std::exchange(other.status_, Status::Ok());
    }
    return *this;
}

LoadedModule LoadedModule::FromLoad(ModuleHandle handle) {
    LoadedModule loaded(handle);
    if (!handle) {
        const uint32_t code = LastModuleErrorCode();
        loaded.status_ =
            Status::Failure(code != 0 ? static_cast<int32_t>(code) : qv::status::kFunctionFailed, LastModuleError());
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
    status_ = Status::Ok();
}

}  // namespace os
