#include "plugin/sync_rw_lock.h"

#include <stdexcept>

#include "os/thread_id.h"

namespace qv {
namespace {

uint32_t Resolve(uint32_t threadId) noexcept { return threadId != 0 ? threadId : os::CurrentThreadId(); }

}  // namespace

void CSyncRWLock::ReadLock(uint32_t threadId) {
    threadId = Resolve(threadId);
    Guard guard(guard_);
    if (readingThreads_ > 0) {
        if (auto it = readers_.find(threadId); it != readers_.end()) {
            ++it->second;
            return;
        }
        if (!WriterWaiting()) {
            readers_.emplace(threadId, 1u);
            ++readingThreads_;
            return;
        }
        WaitAsReader(guard, threadId);
        return;
    }
    if (writerActive_) {
        if (writerId_ == threadId) {
            ++writerReadCount_;
            return;
        }
        WaitAsReader(guard, threadId);
        return;
    }
    if (WriterWaiting()) {
        WaitAsReader(guard, threadId);
        return;
    }
    readers_.emplace(threadId, 1u);
    ++readingThreads_;
}

void CSyncRWLock::WriteLock(uint32_t threadId) {
    threadId = Resolve(threadId);
    Guard guard(guard_);
    if (readingThreads_ == 0 && !writerActive_) {
        BecomeWriter(threadId, 0);
        return;
    }
    if (writerActive_ && writerId_ == threadId) {
        ++writerNesting_;
        return;
    }
    if (readingThreads_ > 0) {
        if (auto it = readers_.find(threadId); it != readers_.end()) {
            Upgrade(guard, threadId, it);
            return;
        }
    }
    WaitAsWriter(guard, threadId);
}

void CSyncRWLock::ReadUnlock(uint32_t threadId) {
    threadId = Resolve(threadId);
    Guard guard(guard_);
    if (readingThreads_ > 0) {
        auto it = readers_.find(threadId);
        if (it == readers_.end()) throw std::logic_error("ReadUnlock by a thread that holds no read lock");
        if (it->second > 1) {
            --it->second;
            return;
        }
        readers_.erase(it);
        --readingThreads_;
        if (readingThreads_ == 0) HandOverFromReaders(guard);
        return;
    }
    if (!writerActive_ || writerId_ != threadId || writerReadCount_ == 0)
        throw std::logic_error("ReadUnlock by a thread that holds no read lock");
    --writerReadCount_;
    if (writerReadCount_ > 0 || writerNesting_ > 0) return;
    HandOverFromWriter(guard);
}

void CSyncRWLock::WriteUnlock(uint32_t threadId) {
    threadId = Resolve(threadId);
    Guard guard(guard_);
    if (!writerActive_ || writerId_ != threadId || writerNesting_ == 0)
        throw std::logic_error("WriteUnlock by a thread that holds no write lock");
    --writerNesting_;
    if (writerReadCount_ > 0 || writerNesting_ > 0) return;
    HandOverFromWriter(guard);
}

CSyncRWLock::State CSyncRWLock::Snapshot() const {
    std::lock_guard<std::mutex> guard(guard_);
    State state;
    state.waitingReaders = waitingReaders_;
    state.waitingWriters = waitingWriters_;
    state.readingThreads = readingThreads_;
    state.writerActive = writerActive_ != 0;
    state.writerId = writerId_;
    state.writerReadCount = writerReadCount_;
    state.writerNesting = writerNesting_;
    state.upgradePending = upgradePending_;
    return state;
}

void CSyncRWLock::BecomeWriter(uint32_t threadId, uint32_t readCount) noexcept {
    writerActive_ = 1;
    writerId_ = threadId;
    writerReadCount_ = readCount;
    writerNesting_ = 1;
}

void CSyncRWLock::WaitAsReader(Guard& guard, uint32_t threadId) {
    ++waitingReaders_;
    handedOver_.wait(guard, [this] { return readerPermits_ > 0; });
    --readerPermits_;
    // The waker has already counted this thread among the readers.
    readers_.emplace(threadId, 1u);
}

void CSyncRWLock::WaitAsWriter(Guard& guard, uint32_t threadId) {
    ++waitingWriters_;
    handedOver_.wait(guard, [this] { return writerPermits_ > 0; });
    --writerPermits_;
    // The waker has already set the writer-active flag for this thread.
    BecomeWriter(threadId, 0);
}

void CSyncRWLock::Upgrade(Guard& guard, uint32_t threadId, std::map<uint32_t, uint32_t>::iterator reader) {
    // Checked first: even the last remaining reader must not overtake a
    // waiting upgrade, which only the last reader's ReadUnlock can serve.
    if (upgradePending_) throw std::logic_error("WriteLock by a reader while another reader waits to write");
    if (readingThreads_ == 1) {
        const uint32_t nesting = reader->second;
        readers_.erase(reader);
        readingThreads_ = 0;
        BecomeWriter(threadId, nesting);
        return;
    }
    upgradePending_ = true;
    upgraderId_ = threadId;
    upgraderReadCount_ = reader->second;
    readers_.erase(reader);
    --readingThreads_;
    handedOver_.wait(guard, [this] { return upgradePermits_ > 0; });
    --upgradePermits_;
    guard.unlock();
    // The last reader to leave has made this thread the writer.
}

void CSyncRWLock::HandOverFromReaders(Guard& guard) {
    if (upgradePending_) {
        upgradePending_ = false;
        BecomeWriter(upgraderId_, upgraderReadCount_);
        upgraderId_ = 0;
        upgraderReadCount_ = 0;
        ++upgradePermits_;
        guard.unlock();
        handedOver_.notify_all();
        return;
    }
    if (waitingWriters_ == 0) return;
    --waitingWriters_;
    writerActive_ = 1;
    ++writerPermits_;
    guard.unlock();
    handedOver_.notify_all();
}

void CSyncRWLock::HandOverFromWriter(Guard& guard) {
    writerActive_ = 0;
    writerId_ = 0;
    if (waitingWriters_ > 0) {
        --waitingWriters_;
        writerActive_ = 1;
        ++writerPermits_;
        guard.unlock();
        handedOver_.notify_all();
        return;
    }
    if (waitingReaders_ > 0) {
        const uint32_t woken = waitingReaders_;
        waitingReaders_ = 0;
        readingThreads_ = woken;
        readerPermits_ += woken;
        guard.unlock();
        handedOver_.notify_all();
    }
}

}  // namespace qv
