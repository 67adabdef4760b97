#pragma once
// Dependencies of condition types and their injection.
//
// A condition type declares the services it needs as a list of dependency
// types. The manager resolves each one once at start and, for every new
// condition, calls Inject(identifier, object) once per declared dependency, in
// declaration order, before Init. InjectionClient<D...> keeps one slot per
// declared type and fills it from the matching identifier; other identifiers
// are ignored.
#include <optional>
#include <tuple>

#include "conditions/condition_queue.h"
#include "conditions/manager_interface.h"
#include "network/network_provider_interface.h"
#include "qv/computer_manager.h"
#include "qv/event_queue.h"
#include "qv/guid.h"
#include "qv/ovra_notifications.h"
#include "qv/user_manager.h"

namespace Product::Integration::ConditionManager {

// A named event queue of the condition's own. What is injected is the host's
// queue factory; the condition names its queue and creates it through it.
struct EvQueueWithName {
    static constexpr GUID iid = qv::MakeGuid(0xC47A19D3, 0x0E62, 0x4B8F, 0x95AD, 0x3F81E6C2B740);
};

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

// One specialisation per dependency type: its identifier, the name it is
// looked up under (or logged as) and where it comes from.
template <class D>
struct DependencyTraits;

template <>
struct DependencyTraits<IManager> {
    static constexpr DependencySource source = DependencySource::kManager;
    static constexpr const wchar_t* name = L"Product.ConditionalRunner.ConditionManager";
    static const GUID& Iid() { return IManager::iid; }
};

template <>
struct DependencyTraits<EvQueueWithName> {
    static constexpr DependencySource source = DependencySource::kQueueFactory;
    static constexpr const wchar_t* name = L"EvQueueWithName";
    static const GUID& Iid() { return EvQueueWithName::iid; }
};

template <>
struct DependencyTraits<Product::Integration::INetworkProvider> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = L"Product.ConditionalRunner.NetworkProvider";
    static const GUID& Iid() { return Product::Integration::INetworkProvider::iid; }
};

// The host's own managers are identified by the text the host defines, parsed
// once; a text that does not parse gives the all-zero identifier.
template <>
struct DependencyTraits<Product::UserManager::IUserManager> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = L"Product.UserManager";
    static const GUID& Iid() {
        static const GUID iid = ParseGuid(Product::UserManager::IUserManager::iidText).value_or(GUID{});
        return iid;
    }
};

template <>
struct DependencyTraits<Product::ComputerManager::IComputerManager> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = L"Product.ComputerManager";
    static const GUID& Iid() {
        static const GUID iid = ParseGuid(Product::ComputerManager::IComputerManager::iidText).value_or(GUID{});
        return iid;
    }
};

template <>
struct DependencyTraits<Endpoint::Ovra::Notifications::IOvraClientWithNotifications> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = L"Ovra.Client.Notifications";
    static const GUID& Iid() { return Endpoint::Ovra::Notifications::IOvraClientWithNotifications::iid; }
};

// The declared dependency types of a condition class, in injection order.
template <class... D>
struct DependencyList {};

// The slot that receives one dependency: the interface pointer, or for
// EvQueueWithName the condition's queue (which keeps the factory).
template <class D>
class DependencySlot {
public:
    void Set(void* object) noexcept { object_ = static_cast<D*>(object); }
    D* get() const noexcept { return object_; }
    void reset() noexcept { object_ = nullptr; }

private:
    D* object_ = nullptr;
};

template <>
class DependencySlot<EvQueueWithName> {
public:
    void Set(void* object) noexcept { queue_.SetFactory(static_cast<IEventQueueFactory*>(object)); }
    ConditionQueue& queue() noexcept { return queue_; }

private:
    ConditionQueue queue_;
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

    void Inject(const GUID& iid, void* object) override { this->InjectDependency(iid, object); }
};

}  // namespace Product::Integration::ConditionManager
