// The locks of os/thread_annotations.h at run time: each holds and lets go of
// its mutex exactly when it says, since the analysis trusts it to.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

#include "os/thread_annotations.h"

namespace {

// Whether another thread could take `mutex` now (and gives it back at once).
template <class Mutex>
bool FreeForAnotherThread(Mutex& mutex) {
    bool taken = false;
    std::thread([&] {
        if (!mutex.try_lock()) return;
        taken = true;
        mutex.unlock();
    }).join();
    return taken;
}

struct Shared {
    os::Mutex mutex;
    std::condition_variable changed;
    bool ready CR_GUARDED_BY(mutex) = false;
};

TEST(Locks, AUniqueLockHoldsItsMutexExceptBetweenUnlockAndLockAndWhileItWaits) {
    Shared shared;
    {
        os::UniqueLock lock(shared.mutex);
        EXPECT_FALSE(FreeForAnotherThread(shared.mutex));
        lock.Unlock();
        EXPECT_TRUE(FreeForAnotherThread(shared.mutex));
        lock.Lock();
        EXPECT_FALSE(FreeForAnotherThread(shared.mutex));
        // A waiter lets the mutex go, so that the thread it waits for can set
        // the flag under it.
        std::thread setter([&] {
            os::MutexLock held(shared.mutex);
            shared.ready = true;
            shared.changed.notify_all();
        });
        while (!shared.ready) lock.Wait(shared.changed);
        EXPECT_FALSE(FreeForAnotherThread(shared.mutex));
        lock.Unlock();
        setter.join();
    }
    // Let go already when it ends: it must not let go a second time.
    EXPECT_TRUE(FreeForAnotherThread(shared.mutex));
}

TEST(Locks, AWaitWithADeadlineReturnsWithTheMutexHeldOnceTheDeadlinePassed) {
    Shared shared;
    os::UniqueLock lock(shared.mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    while (!shared.ready && lock.WaitUntil(shared.changed, deadline) == std::cv_status::no_timeout) continue;
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    EXPECT_FALSE(FreeForAnotherThread(shared.mutex));
}

TEST(Locks, AMutexUnlockLetsTheHeldMutexGoForItsScopeOnly) {
    os::Mutex mutex;
    os::MutexLock lock(mutex);
    {
        const os::MutexUnlock unlocked(mutex);
        EXPECT_TRUE(FreeForAnotherThread(mutex));
    }
    EXPECT_FALSE(FreeForAnotherThread(mutex));
}

TEST(Locks, ARecursiveMutexIsTakenAgainByItsHolderAndFreedByTheLastLock) {
    os::RecursiveMutex mutex;
    auto freeForAnotherThread = [&] { return FreeForAnotherThread(mutex); };
    // A function of its own, as a second lock within one function is what
    // the analysis reports.
    auto again = [&] {
        os::RecursiveMutexLock inner(mutex);
        EXPECT_FALSE(freeForAnotherThread());
    };
    {
        os::RecursiveMutexLock outer(mutex);
        again();
        EXPECT_FALSE(freeForAnotherThread());
    }
    EXPECT_TRUE(freeForAnotherThread());
}

}  // namespace
