#include "plugin/easy_event_queue.h"

#include <exception>
#include <set>
#include <utility>

#include "plugin/log.h"
#include "qv/status.h"

namespace qv {

// The client's set of pending items. Items add themselves when created and
// remove themselves when they start or are released; any thread.
class EasyEventQueue::detailEq::Tracker {
public:
    void Add(const WorkItem* item) {
        os::MutexLock lock(mutex_);
        items_.insert(item);
    }
    void Remove(const WorkItem* item) {
        os::MutexLock lock(mutex_);
        items_.erase(item);
    }
    size_t Count() const {
        os::MutexLock lock(mutex_);
        return items_.size();
    }

private:
    mutable os::Mutex mutex_;
    std::set<const WorkItem*> items_ CR_GUARDED_BY(mutex_);
};

// One posted callable. The host runs it at most once and then releases it,
// or only releases it; Release deletes it.
class EasyEventQueue::detailEq::WorkItem final : public EqWorkItem {
public:
    WorkItem(std::function<void()> fn, std::shared_ptr<Tracker> tracker)
        : fn_(std::move(fn)), tracker_(std::move(tracker)) {
        tracker_->Add(this);
    }

    void Release() override {
        tracker_->Remove(this);
        delete this;
    }

    // Failures of the callable (an empty one raises std::bad_function_call)
    // are logged here and never reach the host's worker.
    void Run() override {
        tracker_->Remove(this);
        try {
            fn_();
        } catch (const std::exception& e) {
            logging::Log(logging::kError, L"qv::EasyEventQueue::detailEq::WorkItem::Run", L"work item failed: %S",
                         e.what());
        } catch (...) {
            logging::Log(logging::kError, L"qv::EasyEventQueue::detailEq::WorkItem::Run",
                         L"work item failed with an unknown exception");
        }
    }

private:
    ~WorkItem() override = default;

    std::function<void()> fn_;
    std::shared_ptr<Tracker> tracker_;
};

EasyEventQueue::EasyEventQueue() : pending_(std::make_shared<detailEq::Tracker>()) {}

EasyEventQueue::~EasyEventQueue() { Shutdown(); }

int32_t EasyEventQueue::Init(IEventQueue* queue, std::wstring name) {
    if (!queue) return status::kInvalidParameter;
    os::MutexLock lock(mutex_);
    if (queue_) return status::kAlreadyExists;
    EqGroupHandle group = 0;
    const int32_t result = queue->CreateGroup(&group);
    if (result != status::kSuccess) return result;
    name_ = std::move(name);
    queue_ = queue;
    group_ = group;
    return status::kSuccess;
}

int32_t EasyEventQueue::Post(std::function<void()> fn, uint32_t delayMs, std::optional<uint32_t> second, EqItemId* id) {
    if (id) *id = 0;
    os::MutexLock lock(mutex_);
    if (!queue_) return status::kNotReady;
    auto* item = new detailEq::WorkItem(std::move(fn), pending_);
    // The host owns the item from here on, also when it refuses it.
    return queue_->Post(name_.c_str(), delayMs, second.value_or(kEqNoValue), item, group_, id);
}

void EasyEventQueue::Shutdown() {
    IEventQueue* queue = nullptr;
    EqGroupHandle group = 0;
    {
        os::MutexLock lock(mutex_);
        queue = std::exchange(queue_, nullptr);
        group = std::exchange(group_, 0);
    }
    // Outside the lock: releasing the group releases the pending items, which
    // may be posting (and failing) concurrently on the queue's thread.
    // The host refuses only a group it does not know, which then holds nothing.
    if (queue) static_cast<void>(queue->ReleaseGroup(group));
}

size_t EasyEventQueue::PendingCount() const { return pending_->Count(); }

const std::wstring& EasyEventQueue::name() const { return name_; }

bool EasyEventQueue::Initialized() const {
    os::MutexLock lock(mutex_);
    return queue_ != nullptr;
}

}  // namespace qv
