#include "host/component_manager.h"

#include "qv/status.h"

namespace host {

void ComponentManager::Register(const std::wstring& name, IQvBaseInterface* object) {
    std::lock_guard lock(mutex_);
    Entry& entry = plugins_[name];
    entry.object = object;
}

void ComponentManager::Unregister(const std::wstring& name) {
    std::lock_guard lock(mutex_);
    auto it = plugins_.find(name);
    if (it == plugins_.end()) return;
    if (it->second.references) released_[name] += it->second.references;
    plugins_.erase(it);
}

void ComponentManager::SetEventQueueFactory(IEventQueueFactory* factory) {
    std::lock_guard lock(mutex_);
    queues_ = factory;
}

int ComponentManager::References(const std::wstring& name) const {
    std::lock_guard lock(mutex_);
    int n = 0;
    if (auto it = plugins_.find(name); it != plugins_.end()) n += it->second.references;
    if (auto it = released_.find(name); it != released_.end()) n += it->second;
    return n;
}

int ComponentManager::TotalReferences() const {
    std::lock_guard lock(mutex_);
    int n = 0;
    for (const auto& [name, entry] : plugins_) n += entry.references;
    for (const auto& [name, count] : released_) n += count;
    return n;
}

int32_t ComponentManager::GetPlugin(const wchar_t* name, const GUID& iid, void** out) {
    if (!out) return qv::status::kInvalidParameter;
    *out = nullptr;
    if (!name) return qv::status::kInvalidParameter;
    std::lock_guard lock(mutex_);
    auto it = plugins_.find(name);
    if (it == plugins_.end() || !it->second.object) return qv::status::kNotFound;
    void* found = it->second.object->QueryInterface(iid);
    if (!found) return qv::status::kNotFound;
    ++it->second.references;
    *out = found;
    return 0;
}

void ComponentManager::ReleasePlugin(const wchar_t* name) {
    if (!name) return;
    std::lock_guard lock(mutex_);
    if (auto it = plugins_.find(name); it != plugins_.end() && it->second.references > 0) {
        --it->second.references;
    } else if (auto gone = released_.find(name); gone != released_.end() && gone->second > 0) {
        if (--gone->second == 0) released_.erase(gone);
    }
}

IEventQueueFactory* ComponentManager::GetEventQueueFactory() {
    std::lock_guard lock(mutex_);
    return queues_;
}

void* ServMain::QueryInterface(const GUID& requested) {
    return qv::GuidEquals(requested, IQvBaseInterface::iid) ? static_cast<IQvBaseInterface*>(this) : nullptr;
}

}  // namespace host
