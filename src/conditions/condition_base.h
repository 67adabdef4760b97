#pragma once
// Common base of all conditions: identity, type keyword and the subscriber
// list through which changes are reported.
#include <cstddef>
#include <string>

#include <json/value.h>

#include "conditions/condition.h"
#include "conditions/dependencies.h"
#include "conditions/diagnostics.h"
#include "plugin/event_adaptor.h"
#include "plugin/subscriber_container.h"

namespace Product::Integration::ConditionManager {

// Lifecycle: the manager makes the object, injects the declared dependencies,
// calls Init (which computes the initial state without notifying), then hands
// it to the owner, who subscribes. Each change of the cached state produces
// exactly one NotifyChanged. The factory's deleter calls Uninit and frees the
// object.
//
// Thread rules: Init and Uninit run on the owner's thread. Subscribe,
// Unsubscribe and GetType may be called from any thread; the subscriber list
// is guarded by its reader/writer lock (exclusive for changes, shared while
// notifying).
class ConditionBase : public ICondition, public IConditionDiagnostics {
public:
    // What the manager passes to Init.
    struct InitData {
        Json::Value json;      // the condition's whole JSON object ("type", "data")
        size_t id = 0;         // the identifier reported in OnStateChanged
        void* host = nullptr;  // the manager's host object; not read by conditions
    };
    // Types without dependencies declare none.
    using Dependencies = DependencyList<>;

    ConditionBase() = default;
    ~ConditionBase() override = default;
    ConditionBase(const ConditionBase&) = delete;
    ConditionBase& operator=(const ConditionBase&) = delete;

    const wchar_t* GetType() override { return type_.c_str(); }
    [[nodiscard]] int32_t Subscribe(IConditionEvent* subscriber) override;
    [[nodiscard]] int32_t Unsubscribe(IConditionEvent* subscriber) override;
    // Visits this condition only; conditions with children add theirs.
    [[nodiscard]] int32_t Accept(IConditionVisitor& visitor) override;
    // Answers IConditionDiagnostics.
    void* QueryInterface(const GUID& iid) override;
    // Nothing to show (null); conditions over a source say what they saw.
    [[nodiscard]] Json::Value Observed() override { return Json::Value(); }

    // Sets the identifier and the type keyword (the "type" member, "" when
    // absent); returns 0. Derived conditions call it first, then read "data".
    // A non-zero result makes the manager destroy the condition.
    [[nodiscard]] virtual int32_t Init(const InitData& data);
    // Undoes Init: unsubscribes from the condition's sources and stops its
    // work. Must be safe after a failed Init and when called again. The base
    // version does nothing.
    virtual void Uninit() {}

    size_t id() const noexcept { return id_; }

protected:
    // Called by a derived condition when its cached state changed: logs
    // "Condition [type] notify [TRUE|FALSE]" and calls OnStateChanged(state,
    // id) on every subscriber in subscription order under the list's read
    // lock. Returns the last subscriber's status (0 without subscribers); a
    // failing subscriber does not stop the walk.
    [[nodiscard]] int32_t NotifyChanged(bool state);

    // The "data" member of a condition's JSON, or a null value when there is
    // none; parameters are read from it by their bare names, so that a reader
    // that misses one logs that name.
    static const Json::Value& DataOf(const Json::Value& json);

private:
    using StateChangedEvent =
        qv::Event<qv::MemberFunction_2_args<IConditionEvent, int32_t, bool, size_t, &IConditionEvent::OnStateChanged>>;

    size_t id_ = 0;
    std::wstring type_;
    qv::SynchronyzedObjectContainer<IConditionEvent*> subscribers_;
    StateChangedEvent notifier_{subscribers_};
};

}  // namespace Product::Integration::ConditionManager
