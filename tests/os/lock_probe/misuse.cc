// Compiled by a test, never linked (not a .cpp, so no test program takes
// it), to show that clang's analysis reports each way of breaking a lock rule
// that the project's annotated classes rely on: every function here breaks
// one and must be reported.
#include "os/thread_annotations.h"

class Counter {
public:
    void WithoutTheLock() { count_ = 1; }

    void AfterUnlock() {
        os::UniqueLock lock(mutex_);
        lock.Unlock();
        count_ = 2;
    }

    void WhileLetGo() {
        os::MutexLock lock(mutex_);
        const os::MutexUnlock unlocked(mutex_);
        count_ = 3;
    }

    void HelperWithoutTheLock() { BumpLocked(); }

    void LetGoWithoutHolding() { const os::MutexUnlock unlocked(mutex_); }

    void RecursiveWithoutTheLock() { total_ = 4; }

private:
    void BumpLocked() CR_REQUIRES(mutex_) { ++count_; }

    os::Mutex mutex_;
    int count_ CR_GUARDED_BY(mutex_) = 0;
    os::RecursiveMutex recursive_;
    int total_ CR_GUARDED_BY(recursive_) = 0;
};
