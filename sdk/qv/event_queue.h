#pragma once
// The host's named event queues: one worker thread per queue name runs posted
// work items in due order. A client posts through a queue handle obtained from
// the factory, groups its items so that they can be cancelled together, and at
// shutdown stops, waits for and releases its handle.
#include <cstdint>

// One unit of queued work. The queue calls Run at most once, then Release;
// an item cancelled or dropped before it runs is only Released.
struct EqWorkItem {
    virtual ~EqWorkItem() = default;
    virtual void Release() = 0;
    virtual void Run() = 0;
};

using EqGroupHandle = uint64_t;
using EqItemId = uint64_t;

// Value meaning "no value" for the second number passed with a posted item.
constexpr uint32_t kEqNoValue = 0xFFFFFFFFu;

// A client's handle on one named queue. All operations are callable from any thread.
struct IEventQueue {
    // Creates a group under which items can be cancelled together.
    [[nodiscard]] virtual int32_t CreateGroup(EqGroupHandle* group) = 0;
    // Cancels (releases without running) every pending item of the group.
    [[nodiscard]] virtual int32_t CancelGroup(EqGroupHandle group) = 0;
    // Cancels the group's pending items and forgets the group.
    [[nodiscard]] virtual int32_t ReleaseGroup(EqGroupHandle group) = 0;
    // Removes one pending item; kNotFound when it already ran or is unknown.
    [[nodiscard]] virtual int32_t Cancel(EqItemId id) = 0;
    // Queues `item` on the worker named `queueName` (the handle's own name).
    // `delayMs` postpones it; `expireMs` (kEqNoValue: never) drops it, unrun,
    // when it could not start within that many milliseconds after becoming due.
    // `group` is one of this handle's groups, or 0 for none; *id (if given)
    // receives an identifier for Cancel. Takes ownership of `item` in every
    // case (released at once on failure).
    [[nodiscard]] virtual int32_t Post(const wchar_t* queueName, uint32_t delayMs, uint32_t expireMs, EqWorkItem* item,
                                       EqGroupHandle group, EqItemId* id) = 0;

protected:
    ~IEventQueue() = default;
};

struct IEventQueueFactory {
    // A handle on the worker named `name` (created on first use).
    [[nodiscard]] virtual int32_t CreateQueue(const wchar_t* name, IEventQueue** queue) = 0;
    // After Stop the handle refuses posts and its pending items are released unrun.
    [[nodiscard]] virtual int32_t StopQueue(IEventQueue* queue) = 0;
    // Waits until no item posted through the handle is running (timeout in ms,
    // 0xFFFFFFFF for none). Returns 0, or kTimeout on time-out. Called from the
    // worker itself it does not wait for the item that is calling.
    [[nodiscard]] virtual int32_t WaitQueue(IEventQueue* queue, uint32_t timeoutMs) = 0;
    // Gives the handle back; the worker ends when its last handle is released.
    [[nodiscard]] virtual int32_t ReleaseQueue(IEventQueue* queue) = 0;

protected:
    ~IEventQueueFactory() = default;
};
