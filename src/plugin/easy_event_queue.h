#pragma once
// The module's client of one host event queue: posts callables to run later
// on the queue's own thread, all under one group of this client so that the
// ones still pending can be cancelled together at shutdown.
//
// The host queue handle is not owned: its owner creates it through the host's
// queue factory, Inits the client with it, and at the end stops and waits for
// the handle, calls Shutdown, and only then releases the handle.
//
// Thread rules: Init and Shutdown are called by the owner (Shutdown also from
// the destructor); Post and the observers are callable from any thread,
// including from inside a posted callable. A refused callable is destroyed
// inside Post, so nothing it owns may call back into this client when destroyed.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "os/thread_annotations.h"
#include "qv/event_queue.h"

namespace qv {

class EasyEventQueue {
public:
    struct detailEq {
        class Tracker;
        class WorkItem;
    };

    EasyEventQueue();
    ~EasyEventQueue();  // Shutdown()
    EasyEventQueue(const EasyEventQueue&) = delete;
    EasyEventQueue& operator=(const EasyEventQueue&) = delete;

    // Binds to a host queue handle (not owned) and creates the client's group.
    // 0 or the host's status; kInvalidParameter without a queue, kAlreadyExists when already bound.
    [[nodiscard]] int32_t Init(IEventQueue* queue, std::wstring name);
    // Posts `fn` to run on the queue's thread after `delayMs`; `second` is the
    // optional second value (kEqNoValue when absent), which the host reads as
    // the expiry in milliseconds after the item became due. Returns the host's
    // status (kNotReady when not bound); on success *id (if given) receives the item id.
    [[nodiscard]] int32_t Post(std::function<void()> fn, uint32_t delayMs,
                               std::optional<uint32_t> second = std::nullopt, EqItemId* id = nullptr);
    // Cancels the group's pending items, releases the group handle, forgets the
    // queue. Idempotent.
    void Shutdown();

    // Items posted by this client that have neither started nor been released.
    size_t PendingCount() const;
    const std::wstring& name() const;
    bool Initialized() const;

private:
    std::wstring name_;  // set by Init (the owner), before any Post
    // Guards queue_ and group_; held across a post so that Shutdown cannot
    // release the group while an item is being added to it. Never held while
    // the host releases items.
    mutable os::Mutex mutex_;
    IEventQueue* queue_ CR_GUARDED_BY(mutex_) = nullptr;
    EqGroupHandle group_ CR_GUARDED_BY(mutex_) = 0;
    // The set of posted items still pending; shared with the items so that an
    // item finishing after the client is gone touches nothing freed.
    std::shared_ptr<detailEq::Tracker> pending_;
};

}  // namespace qv
