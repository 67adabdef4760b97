#pragma once
// A condition's own named event queue: a handle on one of the host's queues,
// created through the host's queue factory, with the module's queue client on
// top. Work posted here runs later on the queue's thread.
//
// Thread rules: SetFactory, Open and Close are called by the owning condition
// (injection, Init, Uninit, destructor). Post may be called from any thread,
// including from inside posted work and while Close runs (it then fails).
#include <cstdint>
#include <functional>
#include <string>

#include "conditions/dependencies.h"
#include "plugin/easy_event_queue.h"
#include "qv/event_queue.h"

namespace Product::Integration::ConditionManager {

class ConditionQueue {
public:
    ConditionQueue() = default;
    ~ConditionQueue() { Close(); }
    ConditionQueue(const ConditionQueue&) = delete;
    ConditionQueue& operator=(const ConditionQueue&) = delete;

    // The factory the queue is created through (not owned); may be null.
    void SetFactory(IEventQueueFactory* factory) noexcept { factory_ = factory; }
    IEventQueueFactory* factory() const noexcept { return factory_; }

    // Creates the queue `name` through the factory, closing any earlier one.
    // 0; kDependencyNotFound without a factory; otherwise the host's status.
    [[nodiscard]] int32_t Open(const std::wstring& name);
    // Runs `work` on the queue's thread after `delayMs`. 0 or the host's
    // status (kNotReady when the queue is not open or closing).
    [[nodiscard]] int32_t Post(std::function<void()> work, uint32_t delayMs);
    // Stops the queue (pending work is dropped unrun), waits without a time
    // limit for work that is running, and gives the queue back. Afterwards no
    // posted work runs any more. Idempotent. Not from inside posted work.
    void Close();

    const std::wstring& name() const noexcept { return name_; }
    // Work posted and neither started nor dropped yet.
    size_t PendingCount() const { return client_.PendingCount(); }

private:
    IEventQueueFactory* factory_ = nullptr;
    IEventQueue* queue_ = nullptr;              // owner's thread only
    IEventQueueFactory* openedWith_ = nullptr;  // the factory queue_ came from
    std::wstring name_;
    qv::EasyEventQueue client_;
};

// The dependency of a condition that wants a named event queue of its own.
// What is injected is the host's queue factory; the condition opens its queue
// through it in Init (OpenQueue below) and closes it in Uninit.
struct EvQueueWithName {
    static constexpr GUID iid = qv::MakeGuid(0xC47A19D3, 0x0E62, 0x4B8F, 0x95AD, 0x3F81E6C2B740);
};

template <>
struct DependencyTraits<EvQueueWithName> {
    static constexpr DependencySource source = DependencySource::kQueueFactory;
    static constexpr const wchar_t* name = L"EvQueueWithName";
    static const GUID& Iid() { return EvQueueWithName::iid; }
};

// The slot keeps the condition's queue, which keeps the injected factory.
template <>
class DependencySlot<EvQueueWithName> {
public:
    void Set(void* object) noexcept { queue_.SetFactory(static_cast<IEventQueueFactory*>(object)); }
    ConditionQueue& queue() noexcept { return queue_; }

private:
    ConditionQueue queue_;
};

// The one way a condition sets up its queue, from its Init: opens `queue`
// under `name`. 0; otherwise logs "cannot create event queue [name]" at the
// error level under `function` and returns kDependencyNotFound (no factory
// was injected, or the host refused the queue).
[[nodiscard]] int32_t OpenQueue(ConditionQueue& queue, const wchar_t* name, const wchar_t* function);

}  // namespace Product::Integration::ConditionManager
