#pragma once
// The condition interface: a live truth value over some source (a file, the
// network, the directory, other conditions) that tells its subscribers when
// it flips.
#include <cstddef>
#include <functional>
#include <memory>

#include "qv/guid.h"

namespace Product::Integration::ConditionManager {

class ICondition;

// Told of a condition's changes. Called on whatever thread detected the
// change, so implementations must be safe to call from any thread; they must
// not subscribe to or unsubscribe from the notifying condition while called.
class IConditionEvent {
public:
    virtual ~IConditionEvent() = default;
    // The condition `conditionId` is now `state`. Returns a status (0 = success).
    [[nodiscard]] virtual int32_t OnStateChanged(bool state, size_t conditionId) = 0;
};

// Visits the conditions of a tree (see ICondition::Accept).
class IConditionVisitor {
public:
    virtual void Visit(ICondition& condition) = 0;

protected:
    ~IConditionVisitor() = default;
};

class ICondition {
public:
    // Writes the truth value. With `recompute` the condition first re-derives
    // it from its source (and caches it); otherwise the cached value is given.
    // 0 or an error code; on error `*state` is not to be trusted.
    [[nodiscard]] virtual int32_t GetState(bool* state, bool recompute) = 0;
    // The type keyword the condition was built from; "" when none. Never null.
    virtual const wchar_t* GetType() = 0;
    // 0 when added; kFunctionFailed when that subscriber is already subscribed.
    [[nodiscard]] virtual int32_t Subscribe(IConditionEvent* subscriber) = 0;
    // 0 when removed; kFunctionFailed when it was not subscribed.
    [[nodiscard]] virtual int32_t Unsubscribe(IConditionEvent* subscriber) = 0;
    // Calls the visitor with this condition, then Accept on each child in
    // order (depth first, parent before children). Returns 0.
    [[nodiscard]] virtual int32_t Accept(IConditionVisitor& visitor) = 0;
    // Receives one dependency before Init; `object` may be null. Identifiers
    // the condition did not declare are ignored, which is all this default does.
    virtual void Inject(const GUID& iid, void* object) {}
    virtual ~ICondition() = default;
    // The condition's answer to one of the module's own optional interfaces
    // (IConditionDiagnostics), or null. Declared after the destructor, so
    // that every operation above keeps its place.
    virtual void* QueryInterface(const GUID& requested) { return nullptr; }
};

// Owning handle of a condition, as the condition manager hands it out. The
// deleter comes from the factory that built the object: it calls the
// condition's Uninit (which stops its threads and unsubscribes it from its
// sources; safe after a failed Init and when already called) and then frees
// it. Owners therefore just reset the handle, on a thread that is not one of
// the condition's own (a notification handler must not destroy the tree that
// notifies it).
using ConditionDeleter = std::function<void(ICondition*)>;
using ConditionPtr = std::unique_ptr<ICondition, ConditionDeleter>;

}  // namespace Product::Integration::ConditionManager
