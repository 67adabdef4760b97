#pragma once
// One agent component (an object of the agent's proxy library), held for the
// lifetime of its owner.
//
// Acquire loads the library, takes the component's object by name, starts
// its main interface and asks it for one query interface. Every failure is
// logged and leaves the handle empty; an owner goes on without the query.
// Release stops the component, gives the object back and frees the library.
//
// Thread rule: Acquire and Release on one thread; Query from any thread
// between them (the component's own rules apply to its calls).
#include <cstdint>
#include <string>
#include <vector>

#include "os/module.h"
#include "qv/ovra_components.h"

namespace Product::Integration {

// Where the proxy library is looked for: `fileName` in each directory in turn.
struct ComponentLibraryLocation {
    std::vector<std::wstring> directories;
    std::wstring fileName;

    // The library's own name ("ovra.proxy.dll", "libovra.proxy.so") in the
    // host executable's directory, then in the directory of this module.
    static ComponentLibraryLocation Default();
};

class ComponentHandle {
public:
    ComponentHandle() = default;
    ~ComponentHandle() { Release(); }
    ComponentHandle(const ComponentHandle&) = delete;
    ComponentHandle& operator=(const ComponentHandle&) = delete;

    // 0 when the component's query interface `queryIid` is held; otherwise
    // the error: the system's (or kInvalidSize when it gives none) for a
    // missing library or entry, the component's for a failed creation or
    // start, kInvalidSize for a missing interface.
    [[nodiscard]] int32_t Acquire(const ComponentLibraryLocation& location, const wchar_t* componentName,
                                  const GUID& queryIid);
    void Release() noexcept;

    // The query interface, or null when the handle is empty.
    template <class Q>
    Q* Get() const noexcept {
        return static_cast<Q*>(query_);
    }
    bool Held() const noexcept { return query_ != nullptr; }

private:
    os::LoadedModule library_;
    Ovra::DestroyObjectFn destroy_ = nullptr;
    std::wstring name_;
    void* object_ = nullptr;  // the object's base interface, as QvCreateObject gave it
    Ovra::IComponent* component_ = nullptr;
    void* query_ = nullptr;
};

}  // namespace Product::Integration
