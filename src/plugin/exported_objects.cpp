#include "plugin/exported_objects.h"

#include "qv/status.h"

namespace qv {

// A function-local static: created by the first declaration that registers
// during static construction, and therefore destroyed after the last one.
ExportedObjectRegistry& ExportedObjectRegistry::Instance() {
    static ExportedObjectRegistry registry;
    return registry;
}

int32_t ExportedObjectRegistry::Register(const std::wstring& name, IObjectConstructor* declaration) {
    std::lock_guard lock(mutex_);
    return table_.emplace(name, declaration).second ? status::kSuccess : status::kAlreadyExists;
}

void ExportedObjectRegistry::Unregister(const std::wstring& name) {
    std::lock_guard lock(mutex_);
    table_.erase(name);
}

bool ExportedObjectRegistry::Contains(const std::wstring& name) {
    std::lock_guard lock(mutex_);
    return table_.count(name) != 0;
}

int32_t ExportedObjectRegistry::CreateObject(const wchar_t* name, const GUID* iid, void** object) {
    if (!object) return status::kInvalidParameter;
    *object = nullptr;
    if (!name || !iid) return status::kNotFound;
    const GUID wanted = *iid;  // copied before use: the caller's storage may change
    IQvBaseInterface* base = nullptr;
    {
        std::lock_guard lock(mutex_);
        auto it = table_.find(name);
        if (it == table_.end()) return status::kNotFound;
        base = it->second->CreateInstance();
    }
    if (!base) return status::kNotFound;
    *object = base->QueryInterface(wanted);
    if (*object) return status::kSuccess;
    DestroyObject(name, base);
    return status::kNotFound;
}

void ExportedObjectRegistry::DestroyObject(const wchar_t* name, void* object) {
    if (!name) return;
    std::lock_guard lock(mutex_);
    auto it = table_.find(name);
    if (it != table_.end()) it->second->DestroyInstance(static_cast<IQvBaseInterface*>(object));
}

}  // namespace qv
