#pragma once
// Dependencies of condition types and their injection.
//
// A condition type declares the services it needs as a list of dependency
// types. The manager resolves each one once at start and, for every new
// condition, calls Inject(identifier, object) once per declared dependency, in
// declaration order, before Init. InjectionClient<D...> keeps one slot per
// declared type and fills it from the matching identifier; other identifiers
// are ignored.
//
// This header names no dependency type: each declares its traits beside its
// interface, so a condition compiles against the interfaces it uses only.
#include <optional>
#include <tuple>

#include "qv/guid.h"

namespace Product::Integration::ConditionManager {

// Reads "{x-x-x-x-x}" with the pattern "{%llx-%llx-%llx-%llx-%llx}": each
// group is read as a 64-bit hexadecimal number and narrowed to its field (32,
// 16 and 16 bits, then 16 and 48 bits for the last eight bytes). Null when the
// text does not match.
std::optional<GUID> ParseGuid(const wchar_t* text);

// Where the manager finds a dependency.
enum class DependencySource {
    kManager,       // the manager itself
    kQueueFactory,  // the host's event-queue factory
    kHost,          // a host plug-in, looked up by name and identifier
};

// What the manager needs to know of a dependency type: its identifier, the
// name it is looked up under (or logged as) and where it comes from.
//
// A host plug-in's interface carries its own name (`kPluginName`) and its
// identifier, so this primary template serves it without a line here; an
// identifier the host writes as text (`iidText`) is parsed once, and one that
// does not parse gives the all-zero identifier. Dependencies the module
// provides itself specialise the template beside their own declaration.
template <class D>
struct DependencyTraits {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = D::kPluginName;
    static const GUID& Iid() {
        if constexpr (requires { D::iidText; }) {
            static const GUID iid = ParseGuid(D::iidText).value_or(GUID{});
            return iid;
        } else {
            return D::iid;
        }
    }
};

// The declared dependency types of a condition class, in injection order.
template <class... D>
struct DependencyList {};

// The slot that receives one dependency: the interface pointer. A dependency
// that is more than a pointer specialises it (the condition's own queue).
template <class D>
class DependencySlot {
public:
    void Set(void* object) noexcept { object_ = static_cast<D*>(object); }
    D* get() const noexcept { return object_; }
    void reset() noexcept { object_ = nullptr; }

private:
    D* object_ = nullptr;
};

// Thread rule: slots are filled before Init, on the manager's calling thread,
// and only read afterwards.
template <class... D>
class InjectionClient {
public:
    using Dependencies = DependencyList<D...>;

    // Stores `object` in the slot whose identifier is `iid`; false when no
    // declared type has that identifier.
    bool InjectDependency(const GUID& iid, void* object) { return (TrySet<D>(iid, object) || ...); }

protected:
    template <class T>
    DependencySlot<T>& Slot() noexcept {
        return std::get<DependencySlot<T>>(slots_);
    }
    // The injected interface of type T, or null.
    template <class T>
    T* Dependency() noexcept {
        return Slot<T>().get();
    }

private:
    template <class T>
    bool TrySet(const GUID& iid, void* object) {
        if (!qv::GuidEquals(iid, DependencyTraits<T>::Iid())) return false;
        Slot<T>().Set(object);
        return true;
    }

    std::tuple<DependencySlot<D>...> slots_;
};

// A condition class `Base` (ConditionBase or a class derived from it) that
// declares the dependencies D... and receives them through Inject.
template <class Base, class... D>
class ConditionBaseWithDepends : public Base, public InjectionClient<D...> {
public:
    using Dependencies = DependencyList<D...>;
    using Base::Base;

    void Inject(const GUID& interfaceId, void* object) override { this->InjectDependency(interfaceId, object); }
};

}  // namespace Product::Integration::ConditionManager
