#pragma once
// Subscriber lists guarded by the reentrant reader/writer lock.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "plugin/sync_rw_lock.h"
#include "qv/status.h"

namespace qv {

// Lets a container that is itself a lock be locked as a whole by the calling
// thread: Lock/Unlock take the write lock, LockShared/UnlockShared the read
// lock, so std::lock_guard, std::unique_lock and std::shared_lock work on it.
// The reentrancy rules of the underlying lock apply.
template <class Lock>
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name the host interface gives it
class __Event_LockAdaptor : public Lock {
public:
    void lock() { this->WriteLock(0); }
    void unlock() { this->WriteUnlock(0); }
    void lock_shared() { this->ReadLock(0); }
    void unlock_shared() { this->ReadUnlock(0); }
};

template <class T>
class SynchronyzedObjectContainer;

// Subscriber pointers in subscription order, without duplicates. The
// container does not own them: a subscriber must be removed before it dies.
//
// Thread rule: any thread may call any operation. Add and Remove take the
// write lock; ForEach, Size, Empty and Contains the read lock. Because the
// lock is reentrant, a callback run by ForEach may call ForEach, Size, Empty
// or Contains on the same container. It should not call Add or Remove: that
// is an upgrade of the walk's read lock, which waits for other walking
// threads and throws std::logic_error when another upgrade is already
// waiting. (If it does happen, the walk itself stays memory-safe: it goes by
// position and re-checks the length, so an element added or removed during
// the walk may be skipped or reached, but nothing dangles.)
template <class T>
class SynchronyzedObjectContainer<T*> : public __Event_LockAdaptor<CSyncRWLock> {
public:
    using value_type = T*;

    // 0 when added at the end; kFunctionFailed when already present; kInvalidParameter for null.
    [[nodiscard]] int32_t Add(T* object) {
        if (!object) return status::kInvalidParameter;
        WriteLockGuard guard(*this);
        if (std::find(objects_.begin(), objects_.end(), object) != objects_.end()) return status::kFunctionFailed;
        objects_.push_back(object);
        return status::kSuccess;
    }

    // 0 when removed (the order of the rest is kept); kFunctionFailed when absent.
    [[nodiscard]] int32_t Remove(T* object) {
        WriteLockGuard guard(*this);
        auto it = std::find(objects_.begin(), objects_.end(), object);
        if (it == objects_.end()) return status::kFunctionFailed;
        objects_.erase(it);
        return status::kSuccess;
    }

    // Calls fn(T*) for every object in order, under the read lock. An
    // exception from fn ends the walk and propagates after the unlock.
    template <class Fn>
    void ForEach(Fn&& fn) {
        ReadLockGuard guard(*this);
        for (size_t i = 0; i < objects_.size(); ++i) fn(objects_[i]);
    }

    bool Contains(T* object) {
        ReadLockGuard guard(*this);
        return std::find(objects_.begin(), objects_.end(), object) != objects_.end();
    }

    size_t Size() {
        ReadLockGuard guard(*this);
        return objects_.size();
    }

    bool Empty() {
        ReadLockGuard guard(*this);
        return objects_.empty();
    }

private:
    std::vector<T*> objects_;
};

}  // namespace qv
