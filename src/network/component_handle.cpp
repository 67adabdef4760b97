#include "network/component_handle.h"

#include "os/last_error.h"
#include "os/path.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration {
namespace {

constexpr const wchar_t* kAcquire = L"Product::Integration::ComponentHandle::Acquire";

// An anchor whose address identifies this module.
const int kModuleAnchor = 0;

int32_t SystemErrorOr632(uint32_t code) { return code != 0 ? static_cast<int32_t>(code) : qv::status::kInvalidSize; }

// A failed load's code for the caller: the system's, or kInvalidSize where
// the system gave none (the load's status then says kFunctionFailed, a code
// the system's loader never answers itself).
int32_t LoadFailureCode(const os::Status& load) {
    return load.code() == qv::status::kFunctionFailed ? qv::status::kInvalidSize : load.code();
}

}  // namespace

ComponentLibraryLocation ComponentLibraryLocation::Default() {
    ComponentLibraryLocation location;
    location.directories.push_back(os::DirectoryOf(os::ProgramPath()));
    location.directories.push_back(os::DirectoryOf(os::ModulePathOf(&kModuleAnchor)));
    location.fileName = os::SharedLibraryFileName(Ovra::kProxyLibraryStem);
    return location;
}

int32_t ComponentHandle::Acquire(const ComponentLibraryLocation& location, const wchar_t* componentName,
                                 const GUID& queryIid) {
    Release();
    int32_t error = qv::status::kInvalidSize;
    for (const std::wstring& directory : location.directories) {
        if (directory.empty()) continue;
        library_ = os::LoadedModule::LoadWithItsDependencies(os::JoinPath(directory, location.fileName));
        if (library_) break;
        error = LoadFailureCode(library_.status());
    }
    if (!library_) {
        logging::Log(logging::kWarning, kAcquire, L"Failed to load %s for component [%s], error %d",
                     location.fileName.c_str(), componentName, error);
        return error;
    }
    os::ClearLastSystemError();
    auto create = library_.Function<Ovra::CreateObjectFn>("QvCreateObject");
    destroy_ = library_.Function<Ovra::DestroyObjectFn>("QvDestroyObject");
    if (!create || !destroy_) {
        error = SystemErrorOr632(os::LastSystemError());
        logging::Log(logging::kWarning, kAcquire, L"%s exports no QvCreateObject/QvDestroyObject, error %d",
                     location.fileName.c_str(), error);
        Release();
        return error;
    }
    name_ = componentName;
    void* object = nullptr;
    error = create(componentName, &IQvBaseInterface::iid, &object);
    if (error != 0 || !object) {
        logging::Log(logging::kWarning, kAcquire, L"Failed to create component [%s], error %d", componentName, error);
        Release();
        return error != 0 ? error : qv::status::kInvalidSize;
    }
    object_ = object;
    auto* base = static_cast<IQvBaseInterface*>(object);
    auto* component = static_cast<Ovra::IComponent*>(base->QueryInterface(Ovra::IComponent::iid));
    if (!component) {
        logging::Log(logging::kWarning, kAcquire, L"Component [%s] has no main interface", componentName);
        Release();
        return qv::status::kInvalidSize;
    }
    if (error = component->Start(); error != 0) {
        logging::Log(logging::kWarning, kAcquire, L"Failed to start component [%s], error %d", componentName, error);
        component->Release();
        Release();
        return error;
    }
    component_ = component;
    query_ = base->QueryInterface(queryIid);
    if (!query_) {
        logging::Log(logging::kWarning, kAcquire, L"Component [%s] does not answer the query interface", componentName);
        Release();
        return qv::status::kInvalidSize;
    }
    return qv::status::kSuccess;
}

void ComponentHandle::Release() noexcept {
    query_ = nullptr;
    if (component_) component_->Release();
    component_ = nullptr;
    if (object_ && destroy_) destroy_(name_.c_str(), object_);
    object_ = nullptr;
    destroy_ = nullptr;
    library_.Reset();
}

}  // namespace Product::Integration
