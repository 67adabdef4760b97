#pragma once
// A reentrant reader/writer lock with writer preference.
//
// Locks are owned by thread ids; 0 stands for the calling thread. A thread
// may nest read locks, nest write locks, and take read locks while it holds
// the write lock. Every lock must be balanced by the matching unlock on the
// same thread id; an unlock that matches no held lock throws
// std::logic_error and leaves the lock unchanged.
//
// Scheduling:
// - While a writer waits, threads that do not already read queue behind it
//   (writers are preferred). Threads that already read may always nest.
// - On release, a waiting writer is served before waiting readers; waiting
//   readers are then admitted all together.
// - Wake-ups are hand-offs: the releasing thread sets the counts for the
//   threads it wakes, so a woken thread never competes with newcomers.
//
// Upgrade (a thread holding read locks asks for the write lock):
// - If it is the only reader, it becomes the writer at once.
// - Otherwise it waits until the other readers have left. It is served ahead
//   of writers that are already waiting, and new readers queue behind it.
//   Readers already inside may still nest their read locks meanwhile.
// - While one upgrade waits, a second reader asking for the write lock would
//   deadlock with it; that request throws std::logic_error instead, and the
//   second thread keeps its read locks (it should release them and retry).
// - After an upgrade the thread's read nesting is carried under its write
//   lock: it still owes the same ReadUnlock calls plus one WriteUnlock, in
//   any order. Until the last of them it keeps exclusive access (there is no
//   downgrade back to a shared read lock).
//
// Thread rule: every operation may be called from any thread. All state is
// changed under the internal mutex; waits happen outside it.
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

namespace qv {

class ISyncRWLock {
public:
    virtual void ReadLock(uint32_t threadId = 0) = 0;
    virtual void ReadUnlock(uint32_t threadId = 0) = 0;
    virtual void WriteLock(uint32_t threadId = 0) = 0;
    virtual void WriteUnlock(uint32_t threadId = 0) = 0;

protected:
    ~ISyncRWLock() = default;
};

class CSyncRWLock : public ISyncRWLock {
public:
    // A consistent copy of the counters, for diagnostics and tests.
    struct State {
        uint32_t waitingReaders = 0;
        uint32_t waitingWriters = 0;  // excludes a pending upgrade
        uint32_t readingThreads = 0;  // includes admitted readers still waking
        bool writerActive = false;    // also set while a woken writer is waking
        uint32_t writerId = 0;
        uint32_t writerReadCount = 0;
        uint32_t writerNesting = 0;
        bool upgradePending = false;
    };

    CSyncRWLock() = default;
    virtual ~CSyncRWLock() = default;
    CSyncRWLock(const CSyncRWLock&) = delete;
    CSyncRWLock& operator=(const CSyncRWLock&) = delete;

    void ReadLock(uint32_t threadId = 0) override;
    void ReadUnlock(uint32_t threadId = 0) override;
    void WriteLock(uint32_t threadId = 0) override;
    void WriteUnlock(uint32_t threadId = 0) override;

    State Snapshot() const;

private:
    using Guard = std::unique_lock<std::mutex>;

    bool WriterWaiting() const noexcept { return waitingWriters_ > 0 || upgradePending_; }
    void BecomeWriter(uint32_t threadId, uint32_t readCount) noexcept;
    void WaitAsReader(Guard& guard, uint32_t threadId);
    void WaitAsWriter(Guard& guard, uint32_t threadId);
    void Upgrade(Guard& guard, uint32_t threadId, std::map<uint32_t, uint32_t>::iterator reader);
    // Called with the guard held once the last reader has left. Releases the
    // guard when it hands the lock over.
    void HandOverFromReaders(Guard& guard);
    // Called with the guard held once the writer has fully released. Clears
    // the writer, then wakes a writer or else all waiting readers.
    void HandOverFromWriter(Guard& guard);

    // Hand-offs are permits granted under guard_ and taken by the woken
    // threads; one condition variable serves the three kinds of waiter (each
    // wake-up is rare, so waking all of them costs little, and a lock small
    // enough for every subscriber list matters more).
    mutable std::mutex guard_;
    std::condition_variable handedOver_;
    uint32_t readerPermits_ = 0;
    uint32_t writerPermits_ = 0;
    uint32_t upgradePermits_ = 0;
    uint32_t waitingReaders_ = 0;
    uint32_t waitingWriters_ = 0;
    uint32_t readingThreads_ = 0;
    uint32_t writerActive_ = 0;
    uint32_t writerId_ = 0;
    uint32_t writerReadCount_ = 0;
    uint32_t writerNesting_ = 0;
    std::map<uint32_t, uint32_t> readers_;  // thread id -> read nesting

    // The one reader waiting to become the writer, and the read nesting it
    // brings along. Served by the last reader to leave.
    bool upgradePending_ = false;
    uint32_t upgraderId_ = 0;
    uint32_t upgraderReadCount_ = 0;
};

// Scoped read lock. Not copyable or movable: the unlock must happen on the
// thread id that locked.
class ReadLockGuard {
public:
    explicit ReadLockGuard(ISyncRWLock& lock, uint32_t threadId = 0) : lock_(lock), threadId_(threadId) {
        lock_.ReadLock(threadId_);
    }
    ~ReadLockGuard() { lock_.ReadUnlock(threadId_); }
    ReadLockGuard(const ReadLockGuard&) = delete;
    ReadLockGuard& operator=(const ReadLockGuard&) = delete;

private:
    ISyncRWLock& lock_;
    uint32_t threadId_;
};

// Scoped write lock; same rules as ReadLockGuard.
class WriteLockGuard {
public:
    explicit WriteLockGuard(ISyncRWLock& lock, uint32_t threadId = 0) : lock_(lock), threadId_(threadId) {
        lock_.WriteLock(threadId_);
    }
    ~WriteLockGuard() { lock_.WriteUnlock(threadId_); }
    WriteLockGuard(const WriteLockGuard&) = delete;
    WriteLockGuard& operator=(const WriteLockGuard&) = delete;

private:
    ISyncRWLock& lock_;
    uint32_t threadId_;
};

}  // namespace qv
