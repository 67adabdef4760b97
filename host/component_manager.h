#pragma once
// Reference component manager: plug-ins registered by name, each lookup
// counted so that a test (or the host) can check that every GetPlugin was
// matched by a ReleasePlugin. Thread-safe.
#include <map>
#include <mutex>
#include <string>

#include "qv/serv_plugin.h"

namespace host {

class ComponentManager final : public IComponentManager {
public:
    // Makes `object` available under `name` (not owned); replaces an earlier one.
    void Register(const std::wstring& name, IQvBaseInterface* object);
    void Unregister(const std::wstring& name);
    void SetEventQueueFactory(IEventQueueFactory* factory);

    // References handed out under `name` and not yet released.
    int References(const std::wstring& name) const;
    // Sum of References over all names.
    int TotalReferences() const;

    int32_t GetPlugin(const wchar_t* name, const GUID& iid, void** out) override;
    void ReleasePlugin(const wchar_t* name) override;
    IEventQueueFactory* GetEventQueueFactory() override;

private:
    struct Entry {
        IQvBaseInterface* object = nullptr;
        int references = 0;
    };
    mutable std::mutex mutex_;
    std::map<std::wstring, Entry> plugins_;
    std::map<std::wstring, int> released_;  // references of names unregistered while held
    IEventQueueFactory* queues_ = nullptr;
};

// The host's main object as plug-ins see it.
class ServMain final : public IServMain {
public:
    explicit ServMain(ComponentManager& components) : components_(components) {}
    void* QueryInterface(const GUID& iid) override;
    IComponentManager* GetComponentManager() override { return &components_; }

private:
    ComponentManager& components_;
};

}  // namespace host
