#pragma once
// The reference host's named event queues (IEventQueueFactory). Each queue
// name has one worker thread, created with the first handle on that name and
// ended when the last one is released. Items run one at a time per name, in
// due order, first posted first among equal due times. Time follows the
// injected Clock, so tests drive delays with a ManualClock.
//
// Handles are per client: stopping, waiting for or releasing one handle
// affects only the items posted through it, never those of other clients of
// the same name. Every item handed to Post is Released exactly once: after it
// ran, when it is cancelled, dropped on expiry or by a stop, when the post is
// refused, or when the service is destroyed. Item code (Run, Release) is
// never called under the service's lock; exceptions it throws are swallowed.
//
// Statuses: kInvalidParameter for a null or unknown argument (a handle not made here or
// already released, a queue name other than the handle's, a group of another
// handle); kNotReady for a post or group creation on a stopped handle; kNotFound for an
// unknown group or item id; kTimeout for a WaitQueue time-out; kCreateFailed when a worker
// thread cannot be created.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/clock.h"
#include "os/thread_annotations.h"
#include "qv/event_queue.h"

namespace host {

class EventQueueService final : public IEventQueueFactory, private Clock::Listener {
public:
    // `clock` must outlive the service.
    explicit EventQueueService(Clock& clock);
    // Releases every pending item unrun, lets running items finish and ends
    // all workers. Handles still held by clients become invalid.
    ~EventQueueService();
    EventQueueService(const EventQueueService&) = delete;
    EventQueueService& operator=(const EventQueueService&) = delete;

    // IEventQueueFactory; any thread, including a worker from inside an item.
    int32_t CreateQueue(const wchar_t* name, IEventQueue** queue) override;
    int32_t StopQueue(IEventQueue* queue) override;
    // The time-out is real time (the wait is for a running item, not for a
    // due time). Waiting from the handle's own worker returns 0 at once.
    int32_t WaitQueue(IEventQueue* queue, uint32_t timeoutMs) override;
    // Implies StopQueue and forgets the handle's groups. Releasing the last
    // handle of a name ends its worker: from another thread the call waits
    // for the worker's current item; from inside that item the thread is
    // joined later (by a later call or the destructor). The handle must not
    // be used afterwards.
    int32_t ReleaseQueue(IEventQueue* queue) override;

    // Test helpers, any thread except a worker.
    // True once no pending item is due by the service's clock and no item is
    // running, in every queue; false when `realTimeout` passes first.
    bool WaitIdle(std::chrono::milliseconds realTimeout = std::chrono::seconds(10));
    // Number of queue names that currently have a worker.
    size_t WorkerCount() const;
    // Items pending (not yet running) over all queues.
    size_t PendingCount() const;

private:
    struct Worker;
    class Handle;
    using Key = std::pair<std::chrono::milliseconds, uint64_t>;  // due time, post sequence

    struct Pending {
        EqItemId id = 0;
        EqWorkItem* item = nullptr;
        std::shared_ptr<Handle> handle;
        EqGroupHandle group = 0;
        bool expires = false;
        std::chrono::milliseconds expireAfter{0};  // after the due time
    };

    struct Worker {
        std::wstring name;
        std::thread thread;
        std::thread::id threadId;
        std::condition_variable wake;        // items posted, time moved, quit
        std::map<Key, Pending> pending;      // due order
        std::shared_ptr<Handle> runningFor;  // handle of the item being run or released
        size_t handles = 0;
        bool quit = false;
    };

    // Under mutex_ for the handle operations that reach the service.
    int32_t CreateGroup(Handle& handle, EqGroupHandle* group);
    int32_t CancelGroup(Handle& handle, EqGroupHandle group, bool forget);
    int32_t Cancel(Handle& handle, EqItemId id);
    int32_t Post(Handle& handle, const wchar_t* queueName, uint32_t delayMs, uint32_t expireMs, EqWorkItem* item,
                 EqGroupHandle group, EqItemId* id);

    // Caller holds mutex_. Moves the matching pending items of `worker` to `out`.
    template <class Predicate>
    static void TakePending(Worker& worker, Predicate match, std::vector<EqWorkItem*>& out);
    // The live handle behind `queue`, or null.
    std::shared_ptr<Handle> FindHandle(IEventQueue* queue) const CR_REQUIRES(mutex_);
    bool IdleLocked() const CR_REQUIRES(mutex_);
    // Caller holds no lock.
    static void ReleaseItems(const std::vector<EqWorkItem*>& items);
    // Joins retired workers other than the calling thread's; caller holds no lock.
    void ReapRetired();

    void WorkerLoop(Worker& worker) CR_EXCLUDES(mutex_);
    void OnTimeMoved() override;

    Clock& clock_;
    // Guards the members below, the workers' and the handles' state.
    mutable os::Mutex mutex_;
    std::condition_variable changed_;  // an item started or finished, time moved (WaitQueue, WaitIdle)
    std::map<std::wstring, std::unique_ptr<Worker>> workers_ CR_GUARDED_BY(mutex_);
    std::vector<std::unique_ptr<Worker>> retired_ CR_GUARDED_BY(mutex_);  // ended, not yet joined
    std::map<const IEventQueue*, std::shared_ptr<Handle>> handles_ CR_GUARDED_BY(mutex_);
    uint64_t nextId_ CR_GUARDED_BY(mutex_) = 1;  // item ids and post sequence
    uint64_t nextGroup_ CR_GUARDED_BY(mutex_) = 1;
};

}  // namespace host
