#pragma once
// The condition manager: the table of condition types and the builder of
// condition trees from their JSON form. Exported to the host as the singleton
// "Product.ConditionalRunner.ConditionManager".
//
// Lifecycle: the host calls Init once (which fills the type table and
// resolves every declared dependency once), then any number of
// CreateCondition calls, then Uninit. The resolved host plug-ins are shared
// (HeldPlugins): the manager drops its reference at Uninit, and every
// condition it handed out keeps one until it is freed, so trees may outlive
// Uninit and the manager itself. A condition's deleter never touches the
// manager.
//
// Thread rules: Init and Uninit on the host's thread. CreateCondition from any
// thread without a lock: it only reads the table, which Init filled; it is
// re-entrant, the combinators calling it for their children on the caller's
// thread.
//
// Shape bounds: a tree nested deeper than kMaxConditionDepth conditions, with
// more than kMaxConditionNodes conditions, or whose JSON is nested deeper than
// kMaxJsonDepth values is refused with kInvalidParameter, so that a hostile or broken console
// cannot exhaust the stack or the memory of the service process. The
// outermost CreateCondition of a thread checks the caller's whole value
// before anything is copied or built, walking it without recursion; a
// refused tree builds nothing. 64 levels and 10,000 conditions are far beyond
// any real rule; each condition level takes three or four JSON levels, which
// leaves room for the conditions' own parameters within 512.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/held_plugins.h"
#include "conditions/live_conditions.h"
#include "conditions/manager_interface.h"
#include "plugin/serv_plugin.h"
#include "qv/serv_plugin.h"

namespace Product::Integration::ConditionManager {

class Manager : public IManager, public IManagerDiagnostics, public IServPlugin {
public:
    static constexpr size_t kMaxConditionDepth = 64;
    static constexpr size_t kMaxConditionNodes = 10000;
    static constexpr size_t kMaxJsonDepth = 512;

    Manager();
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // IQvBaseInterface: the base, plug-in, manager and catalog identifiers.
    void* QueryInterface(const GUID& iid) override;

    // Fills the type table, resolves the dependencies through the host's
    // component manager and obtains the network provider. kDependencyNotFound when there is
    // no network provider; the status of InitDependencies when it fails. On
    // failure nothing stays acquired.
    [[nodiscard]] int32_t Init(IServMain* main) override;
    // Drops the manager's reference to the plug-ins that Init obtained; they
    // are given back once no condition built from them remains.
    [[nodiscard]] int32_t Uninit() override;
    [[nodiscard]] int32_t Start() override { return 0; }
    [[nodiscard]] int32_t Stop() override { return 0; }

    // Builds one condition tree (see IManager). Failures: kInvalidParameter for a missing or
    // non-string "type" or a tree beyond the shape bounds; kCallNotImplemented for an unknown type
    // keyword; otherwise the failing condition's Init status (the condition is
    // destroyed through its deleter).
    [[nodiscard]] ConditionPtr CreateCondition(const Json::Value& json, int32_t* error, size_t id) override;
    // The catalog of condition types and the live conditions (see
    // IManagerDiagnostics). Any thread.
    [[nodiscard]] Json::Value Catalog() const override;
    [[nodiscard]] Json::Value LiveConditions() const override;

    // Resolves every dependency record of every type once: the manager itself,
    // the host's queue factory, or the host plug-in of that name. A record
    // that cannot be resolved is logged and left null (the condition that
    // needs it fails in its own Init). kInvalidParameter for a null component manager.
    // Whatever an earlier call resolved is dropped first.
    [[nodiscard]] int32_t InitDependencies(IComponentManager* components);

    // One dependency record of a type.
    struct DependencyRecord {
        GUID iid{};
        std::wstring name;
        DependencySource source = DependencySource::kHost;
        void* object = nullptr;  // filled by InitDependencies
    };
    using Creator = std::function<std::unique_ptr<ConditionBase, ConditionDeleter>()>;
    struct FactoryEntry {
        Creator create;
        std::vector<DependencyRecord> dependencies;
    };

    // The factory entry of `T` (a ConditionBase with its declared
    // Dependencies): how to make one, and what to inject into it.
    template <class T>
    static FactoryEntry EntryFor() {
        static_assert(std::is_base_of_v<ConditionBase, T>, "conditions derive from ConditionBase");
        FactoryEntry entry{MakeCreator<T>(), {}};
        AppendRecords(entry.dependencies, typename T::Dependencies{});
        return entry;
    }

protected:
    // Fills the table with every type of the catalog (conditions/catalog.h); 0.
    // Tests that need a type of their own override it and add theirs with
    // AddToFactory.
    [[nodiscard]] virtual int32_t InitFactory();

    // Registers `T` (a ConditionBase with a static `kType` keyword and its
    // declared Dependencies) under its keyword, replacing an earlier entry.
    template <class T>
    void AddToFactory() {
        factory_[T::kType] = EntryFor<T>();
    }

    // A `create` function that makes a `T` with the deleter below.
    template <class T>
    static Creator MakeCreator() {
        return [] {
            std::unique_ptr<ConditionBase, ConditionDeleter> made(new T(), &DestroyCondition<T>);
            LiveConditions::Added(T::kType);
            return made;
        };
    }

    // Adds an entry by hand (an empty `create` is refused by CreateCondition).
    void AddFactoryEntry(const std::wstring& keyword, FactoryEntry entry) { factory_[keyword] = std::move(entry); }

private:
    // The deleter handed out with every condition: Uninit, then free. It
    // always calls Uninit, also after a failed Init, so that a condition's
    // threads and queues are stopped before its memory is freed.
    template <class T>
    static void DestroyCondition(ICondition* condition) {
        T* typed = static_cast<T*>(condition);
        typed->Uninit();
        delete typed;
        LiveConditions::Removed(T::kType);
    }

    template <class... D>
    static void AppendRecords(std::vector<DependencyRecord>& records, DependencyList<D...>) {
        (records.push_back(DependencyRecord{DependencyTraits<D>::Iid(), DependencyTraits<D>::name,
                                            DependencyTraits<D>::source, nullptr}),
         ...);
    }

    [[nodiscard]] ConditionPtr Build(const Json::Value& json, int32_t* error, size_t id);
    // Clears the dependency records and drops the manager's reference to the
    // plug-ins behind them.
    void ReleaseDependencies();

    std::map<std::wstring, FactoryEntry> factory_;
    IServMain* host_ = nullptr;
    SharedPlugins plugins_;  // the records' plug-ins and the network provider
    std::mutex mutex_;       // serialises Init and Uninit
};

}  // namespace Product::Integration::ConditionManager
