#pragma once
// A held reference to another plug-in, obtained by name from the host's
// component manager and given back by name.
#include <string>

#include "plugin/log.h"
#include "qv/serv_plugin.h"
#include "qv/status.h"

namespace qv {

// The name of an interface as it appears in log lines ("struct X::IY").
// Specialised next to each interface that is looked up through ServPlugin.
template <class T>
struct InterfaceName;

// Whether a plug-in's absence is worth a log line.
enum class PluginPresence { kRequired, kOptional };

// Not thread-safe: the owner acquires and releases on its own thread
// (Init/Uninit), and only reads the pointer elsewhere.
template <class T>
class ServPlugin {
public:
    explicit ServPlugin(std::wstring name) : name_(std::move(name)) {}
    ~ServPlugin() { Release(); }
    ServPlugin(const ServPlugin&) = delete;
    ServPlugin& operator=(const ServPlugin&) = delete;

    // Releases any held plug-in, then asks `manager` for (name, T::iid).
    // Null on failure, after logging why. A manager that answers success
    // counted a reference even when it hands out null: that answer returns
    // null without a log line, and the reference is still given back by
    // Release. An optional plug-in that is missing is not logged either.
    T* GetPlugin(IComponentManager* manager, PluginPresence presence = PluginPresence::kRequired) {
        Release();
        const std::wstring function = L"ServPlugin<" + std::wstring(InterfaceName<T>::value) + L">::GetPlugin";
        if (!manager) {
            logging::Log(logging::kError, function.c_str(), L"Null component manager");
            return nullptr;
        }
        void* out = nullptr;
        const int32_t status = manager->GetPlugin(name_.c_str(), T::iid, &out);
        if (status != status::kSuccess) {
            if (presence == PluginPresence::kOptional) return nullptr;
            logging::Log(logging::kWarning, function.c_str(), L"Error %d getting plugin \"%s\"", status, name_.c_str());
            return nullptr;
        }
        manager_ = manager;
        plugin_ = static_cast<T*>(out);
        return plugin_;
    }

    // Gives the reference back to the manager it came from (also when the
    // manager handed out null with success).
    void Release() {
        if (manager_) manager_->ReleasePlugin(name_.c_str());
        plugin_ = nullptr;
        manager_ = nullptr;
    }

    T* get() const noexcept { return plugin_; }
    T* operator->() const noexcept { return plugin_; }
    explicit operator bool() const noexcept { return plugin_ != nullptr; }
    const std::wstring& name() const noexcept { return name_; }
    IComponentManager* manager() const noexcept { return manager_; }

private:
    IComponentManager* manager_ = nullptr;
    T* plugin_ = nullptr;
    std::wstring name_;
};

}  // namespace qv
