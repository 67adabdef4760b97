// Reference agent-component library ("ovra.proxy.dll" / "libovra.proxy.so"):
// the two components that tell whether a network adapter is physical.
//   "Ovra.OSInfo"   IPhysicalAdapterQuery: asks the system on every query.
//   "Ovra.Network"  IMacQuery: answers from a table of physical addresses
//                   read by Start and again by every Refresh.
// QvCreateObject makes a new object per call; QvDestroyObject deletes it.
// Queries of one object are serialised by its own lock.
#include <mutex>
#include <set>
#include <string>

#include "physical_adapters.h"
#include "qv/ovra_components.h"
#include "qv/status.h"

#if defined(_WIN32)
#define OVRA_EXPORT extern "C" __declspec(dllexport)
#else
#define OVRA_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

class ComponentObject : public Ovra::IComponent {
public:
    virtual ~ComponentObject() = default;
    void Release() override {
        std::lock_guard lock(mutex_);
        started_ = false;
    }
    int32_t Start() override {
        std::lock_guard lock(mutex_);
        started_ = true;
        OnStart();
        return qv::status::kSuccess;
    }

protected:
    virtual void OnStart() {}
    std::mutex mutex_;
    bool started_ = false;
};

class OSInfo final : public ComponentObject, public Ovra::IPhysicalAdapterQuery {
public:
    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, Ovra::IComponent::iid))
            return static_cast<Ovra::IComponent*>(this);
        if (qv::GuidEquals(requested, Ovra::IPhysicalAdapterQuery::iid))
            return static_cast<Ovra::IPhysicalAdapterQuery*>(this);
        return nullptr;
    }
    bool IsPhysicalAdapter(uint32_t, const uint8_t* address, uint32_t length) override {
        std::lock_guard lock(mutex_);
        if (!started_ || !address || length == 0) return false;
        return host::ovra::ReadPhysicalMacs().count(host::ovra::MacText(address, length)) != 0;
    }
};

class Network final : public ComponentObject, public Ovra::IMacQuery {
public:
    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, Ovra::IComponent::iid))
            return static_cast<Ovra::IComponent*>(this);
        if (qv::GuidEquals(requested, Ovra::IMacQuery::iid)) return static_cast<Ovra::IMacQuery*>(this);
        return nullptr;
    }
    bool IsPhysicalMac(const wchar_t* macText) override {
        std::lock_guard lock(mutex_);
        return started_ && macText && macs_.count(macText) != 0;
    }
    void Refresh() override {
        std::lock_guard lock(mutex_);
        if (started_) macs_ = host::ovra::ReadPhysicalMacs();
    }

private:
    void OnStart() override { macs_ = host::ovra::ReadPhysicalMacs(); }
    std::set<std::wstring> macs_;
};

ComponentObject* Make(const std::wstring& name) {
    if (name == Ovra::kOSInfoComponent) return new OSInfo();
    if (name == Ovra::kNetworkComponent) return new Network();
    return nullptr;
}

}  // namespace

OVRA_EXPORT int32_t QvCreateObject(const wchar_t* name, const GUID* iid, void** object) {
    if (!object) return qv::status::kInvalidParameter;
    *object = nullptr;
    if (!name || !iid) return qv::status::kNotFound;
    ComponentObject* made = Make(name);
    if (!made) return qv::status::kNotFound;
    *object = made->QueryInterface(*iid);
    if (!*object) {
        delete made;
        return qv::status::kNotFound;
    }
    return qv::status::kSuccess;
}

OVRA_EXPORT void QvDestroyObject(const wchar_t* name, void* object) {
    if (!object) return;
    // Every interface this library hands out for IQvBaseInterface is the
    // object's IComponent part; the caller gives back what it was given.
    auto* base = static_cast<IQvBaseInterface*>(object);
    auto* component = static_cast<Ovra::IComponent*>(base->QueryInterface(Ovra::IComponent::iid));
    delete static_cast<ComponentObject*>(component);
}
