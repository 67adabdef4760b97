#include "host/event_queue_service.h"

#include <system_error>
#include <utility>

#include "qv/status.h"

namespace host {

// One client's view of a named worker. Its state is guarded by the service's
// mutex; the object lives while the client holds it or an item posted through
// it is pending or running.
class EventQueueService::Handle final : public IEventQueue {
public:
    Handle(EventQueueService& service, Worker& worker) : service_(service), worker_(&worker) {}

    int32_t CreateGroup(EqGroupHandle* group) override { return service_.CreateGroup(*this, group); }
    int32_t CancelGroup(EqGroupHandle group) override { return service_.CancelGroup(*this, group, false); }
    int32_t ReleaseGroup(EqGroupHandle group) override { return service_.CancelGroup(*this, group, true); }
    int32_t Cancel(EqItemId id) override { return service_.Cancel(*this, id); }
    int32_t Post(const wchar_t* queueName, uint32_t delayMs, uint32_t expireMs, EqWorkItem* item, EqGroupHandle group,
                 EqItemId* id) override {
        return service_.Post(*this, queueName, delayMs, expireMs, item, group, id);
    }

    EventQueueService& service_;
    Worker* worker_;  // null once released
    std::set<EqGroupHandle> groups_;
    size_t active_ = 0;  // items of this handle being run or released by the worker
    bool stopped_ = false;
};

EventQueueService::EventQueueService(Clock& clock) : clock_(clock) { clock_.AddListener(this); }

EventQueueService::~EventQueueService() {
    clock_.RemoveListener(this);
    std::vector<EqWorkItem*> dropped;
    std::vector<std::unique_ptr<Worker>> ending;
    {
        os::MutexLock lock(mutex_);
        for (auto& [name, worker] : workers_) {
            TakePending(
                *worker, [](const Pending&) { return true; }, dropped);
            worker->quit = true;
            worker->wake.notify_all();
            ending.push_back(std::move(worker));
        }
        workers_.clear();
        for (auto& worker : retired_) ending.push_back(std::move(worker));
        retired_.clear();
        for (auto& [queue, handle] : handles_) {
            handle->stopped_ = true;
            handle->worker_ = nullptr;
        }
        handles_.clear();
    }
    ReleaseItems(dropped);
    for (auto& worker : ending) {
        if (worker->thread.joinable()) worker->thread.join();
    }
}

int32_t EventQueueService::CreateQueue(const wchar_t* name, IEventQueue** queue) {
    if (queue) *queue = nullptr;
    if (!name || !*name || !queue) return qv::status::kInvalidParameter;
    ReapRetired();
    os::MutexLock lock(mutex_);
    auto it = workers_.find(name);
    if (it == workers_.end()) {
        auto worker = std::make_unique<Worker>();
        worker->name = name;
        Worker* raw = worker.get();
        try {
            // The new thread blocks on mutex_ until this call returns.
            worker->thread = std::thread([this, raw] { WorkerLoop(*raw); });
        } catch (const std::system_error&) {
            return qv::status::kCreateFailed;
        }
        worker->threadId = worker->thread.get_id();
        it = workers_.emplace(name, std::move(worker)).first;
    }
    auto handle = std::make_shared<Handle>(*this, *it->second);
    ++it->second->handles;
    handles_.emplace(handle.get(), handle);
    *queue = handle.get();
    return qv::status::kSuccess;
}

int32_t EventQueueService::StopQueue(IEventQueue* queue) {
    std::vector<EqWorkItem*> dropped;
    {
        os::MutexLock lock(mutex_);
        auto handle = FindHandle(queue);
        if (!handle) return qv::status::kInvalidParameter;
        handle->stopped_ = true;
        Handle* h = handle.get();
        TakePending(
            *handle->worker_, [h](const Pending& p) { return p.handle.get() == h; }, dropped);
    }
    ReleaseItems(dropped);
    return qv::status::kSuccess;
}

int32_t EventQueueService::WaitQueue(IEventQueue* queue, uint32_t timeoutMs) {
    os::UniqueLock lock(mutex_);
    auto handle = FindHandle(queue);
    if (!handle) return qv::status::kInvalidParameter;
    // On its own worker the only item that can be running is the caller.
    if (handle->worker_->threadId == std::this_thread::get_id()) return qv::status::kSuccess;
    auto done = [&handle] { return handle->active_ == 0; };
    if (timeoutMs == 0xFFFFFFFFu) {
        changed_.wait(lock.native(), done);
        return qv::status::kSuccess;
    }
    return changed_.wait_for(lock.native(), std::chrono::milliseconds(timeoutMs), done) ? qv::status::kSuccess
                                                                                        : qv::status::kTimeout;
}

int32_t EventQueueService::ReleaseQueue(IEventQueue* queue) {
    std::vector<EqWorkItem*> dropped;
    Worker* joinNow = nullptr;
    std::unique_ptr<Worker> ended;
    {
        os::MutexLock lock(mutex_);
        auto handle = FindHandle(queue);
        if (!handle) return qv::status::kInvalidParameter;
        Worker& worker = *handle->worker_;
        Handle* h = handle.get();
        TakePending(
            worker, [h](const Pending& p) { return p.handle.get() == h; }, dropped);
        handle->stopped_ = true;
        handle->groups_.clear();
        handle->worker_ = nullptr;
        handles_.erase(queue);
        if (--worker.handles == 0) {
            // No handle, hence no pending item, is left on this name.
            auto it = workers_.find(worker.name);
            ended = std::move(it->second);
            workers_.erase(it);
            ended->quit = true;
            ended->wake.notify_all();
            if (ended->threadId == std::this_thread::get_id()) {
                retired_.push_back(std::move(ended));
            } else {
                joinNow = ended.get();
            }
        }
    }
    ReleaseItems(dropped);
    if (joinNow) joinNow->thread.join();
    return qv::status::kSuccess;
}

bool EventQueueService::WaitIdle(std::chrono::milliseconds realTimeout) {
    os::UniqueLock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + realTimeout;
    while (!IdleLocked()) {
        if (lock.WaitUntil(changed_, deadline) == std::cv_status::timeout) return IdleLocked();
    }
    return true;
}

size_t EventQueueService::WorkerCount() const {
    os::MutexLock lock(mutex_);
    return workers_.size();
}

size_t EventQueueService::PendingCount() const {
    os::MutexLock lock(mutex_);
    size_t n = 0;
    for (const auto& [name, worker] : workers_) n += worker->pending.size();
    return n;
}

int32_t EventQueueService::CreateGroup(Handle& handle, EqGroupHandle* group) {
    if (!group) return qv::status::kInvalidParameter;
    *group = 0;
    os::MutexLock lock(mutex_);
    if (!handle.worker_) return qv::status::kInvalidParameter;
    if (handle.stopped_) return qv::status::kNotReady;
    *group = nextGroup_++;
    handle.groups_.insert(*group);
    return qv::status::kSuccess;
}

int32_t EventQueueService::CancelGroup(Handle& handle, EqGroupHandle group, bool forget) {
    std::vector<EqWorkItem*> dropped;
    {
        os::MutexLock lock(mutex_);
        if (!handle.worker_) return qv::status::kInvalidParameter;
        auto it = handle.groups_.find(group);
        if (it == handle.groups_.end()) return qv::status::kNotFound;
        if (forget) handle.groups_.erase(it);
        Handle* h = &handle;
        TakePending(
            *handle.worker_, [h, group](const Pending& p) { return p.handle.get() == h && p.group == group; }, dropped);
    }
    ReleaseItems(dropped);
    return qv::status::kSuccess;
}

int32_t EventQueueService::Cancel(Handle& handle, EqItemId id) {
    std::vector<EqWorkItem*> dropped;
    {
        os::MutexLock lock(mutex_);
        if (!handle.worker_) return qv::status::kInvalidParameter;
        Handle* h = &handle;
        TakePending(
            *handle.worker_, [h, id](const Pending& p) { return p.handle.get() == h && p.id == id; }, dropped);
    }
    if (dropped.empty()) return qv::status::kNotFound;
    ReleaseItems(dropped);
    return qv::status::kSuccess;
}

int32_t EventQueueService::Post(Handle& handle, const wchar_t* queueName, uint32_t delayMs, uint32_t expireMs,
                                EqWorkItem* item, EqGroupHandle group, EqItemId* id) {
    if (id) *id = 0;
    if (!item) return qv::status::kInvalidParameter;
    int32_t status = qv::status::kSuccess;
    {
        os::MutexLock lock(mutex_);
        Worker* worker = handle.worker_;
        // The order of the checks decides which status answers.
        if (!worker || (queueName && worker->name != queueName)) {  // NOLINT(bugprone-branch-clone)
            status = qv::status::kInvalidParameter;
        } else if (handle.stopped_) {
            status = qv::status::kNotReady;
        } else if (group != 0 && !handle.groups_.count(group)) {
            status = qv::status::kInvalidParameter;
        } else {
            auto self = handles_.find(&handle);
            Pending pending;
            pending.id = nextId_++;
            pending.item = item;
            pending.handle = self->second;
            pending.group = group;
            pending.expires = expireMs != kEqNoValue;
            pending.expireAfter = std::chrono::milliseconds(expireMs);
            Key key{clock_.Now() + std::chrono::milliseconds(delayMs), pending.id};
            if (id) *id = pending.id;
            worker->pending.emplace(key, std::move(pending));
            worker->wake.notify_one();
            changed_.notify_all();
            return qv::status::kSuccess;
        }
    }
    ReleaseItems({item});
    return status;
}

template <class Predicate>
void EventQueueService::TakePending(Worker& worker, Predicate match, std::vector<EqWorkItem*>& out) {
    for (auto it = worker.pending.begin(); it != worker.pending.end();) {
        if (match(it->second)) {
            out.push_back(it->second.item);
            it = worker.pending.erase(it);
        } else {
            ++it;
        }
    }
}

std::shared_ptr<EventQueueService::Handle> EventQueueService::FindHandle(IEventQueue* queue) const {
    auto it = handles_.find(queue);
    return it == handles_.end() ? nullptr : it->second;
}

bool EventQueueService::IdleLocked() const {
    const auto now = clock_.Now();
    for (const auto& [name, worker] : workers_) {
        if (worker->runningFor) return false;
        if (!worker->pending.empty() && worker->pending.begin()->first.first <= now) return false;
    }
    for (const auto& worker : retired_) {
        if (worker->runningFor) return false;
    }
    return true;
}

void EventQueueService::ReleaseItems(const std::vector<EqWorkItem*>& items) {
    for (EqWorkItem* item : items) {
        try {
            item->Release();
        } catch (...) {
            // An item's failure must not take the host down.
        }
    }
}

void EventQueueService::ReapRetired() {
    std::vector<std::unique_ptr<Worker>> joinable;
    {
        os::MutexLock lock(mutex_);
        const auto self = std::this_thread::get_id();
        for (auto it = retired_.begin(); it != retired_.end();) {
            if ((*it)->threadId != self) {
                joinable.push_back(std::move(*it));
                it = retired_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& worker : joinable) worker->thread.join();
}

void EventQueueService::WorkerLoop(Worker& worker) {
    os::UniqueLock lock(mutex_);
    while (!worker.quit) {
        if (worker.pending.empty()) {
            lock.Wait(worker.wake);
            continue;
        }
        auto first = worker.pending.begin();
        const auto now = clock_.Now();
        const auto due = first->first.first;
        if (due > now) {
            clock_.WaitUntil(worker.wake, lock.native(), due);
            continue;
        }
        Pending pending = std::move(first->second);
        worker.pending.erase(first);
        const bool expired = pending.expires && now - due > pending.expireAfter;
        worker.runningFor = pending.handle;
        ++pending.handle->active_;
        changed_.notify_all();
        lock.Unlock();
        if (!expired) {
            try {
                pending.item->Run();
            } catch (...) {
                // Items report their own failures; the worker carries on.
            }
        }
        ReleaseItems({pending.item});
        lock.Lock();
        --pending.handle->active_;
        worker.runningFor.reset();
        changed_.notify_all();
    }
}

void EventQueueService::OnTimeMoved() {
    os::MutexLock lock(mutex_);
    for (auto& [name, worker] : workers_) worker->wake.notify_all();
    changed_.notify_all();
}

}  // namespace host
