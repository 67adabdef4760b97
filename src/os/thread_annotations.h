#pragma once
// Clang's thread-safety analysis (-Wthread-safety), and a mutex it can see.
//
// libstdc++'s std::mutex carries no annotations, so members the analysis is
// to check are guarded by os::Mutex and locked with os::MutexLock:
//
//     mutable os::Mutex lock_;
//     int count_ CR_GUARDED_BY(lock_) = 0;
//     void BumpLocked() CR_REQUIRES(lock_);
//
// A function that waits on a condition variable holds its os::Mutex with
// os::UniqueLock, which waits on a std::condition_variable and lets the mutex
// go and takes it again within its scope. A helper that runs under the lock
// but must let it go for a while (a call out, a wait for other threads)
// does so with os::MutexUnlock. A predicate that reads guarded members is
// written as a loop around Wait in the function that holds the lock (a
// lambda is a function of its own to the analysis, which holds nothing):
//
//     os::UniqueLock lock(lock_);
//     while (!done_) lock.Wait(changed_);
//
// os::RecursiveMutex (with os::RecursiveMutexLock) is for a lock that a
// thread may take again while it holds it; the analysis sees each function
// on its own, so only a second lock within one function body is reported.
//
// Other compilers see plain declarations: the macros expand to nothing.
#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define CR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define CR_THREAD_ANNOTATION(x)
#endif

#define CR_CAPABILITY(name) CR_THREAD_ANNOTATION(capability(name))
#define CR_SCOPED_CAPABILITY CR_THREAD_ANNOTATION(scoped_lockable)
#define CR_GUARDED_BY(x) CR_THREAD_ANNOTATION(guarded_by(x))
#define CR_PT_GUARDED_BY(x) CR_THREAD_ANNOTATION(pt_guarded_by(x))
#define CR_REQUIRES(...) CR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define CR_EXCLUDES(...) CR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define CR_ACQUIRE(...) CR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define CR_RELEASE(...) CR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define CR_TRY_ACQUIRE(...) CR_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define CR_ASSERT_CAPABILITY(x) CR_THREAD_ANNOTATION(assert_capability(x))
#define CR_NO_THREAD_SAFETY_ANALYSIS CR_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace os {

// std::mutex, visible to the analysis. Not recursive.
class CR_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() CR_ACQUIRE() { mutex_.lock(); }
    void unlock() CR_RELEASE() { mutex_.unlock(); }
    bool try_lock() CR_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    friend class UniqueLock;
    std::mutex mutex_;
};

// std::recursive_mutex, visible to the analysis.
class CR_CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() CR_ACQUIRE() { mutex_.lock(); }
    void unlock() CR_RELEASE() { mutex_.unlock(); }
    bool try_lock() CR_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    std::recursive_mutex mutex_;
};

// Holds an os::Mutex for its scope.
class CR_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) CR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() CR_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// Holds an os::RecursiveMutex for its scope.
class CR_SCOPED_CAPABILITY RecursiveMutexLock {
public:
    explicit RecursiveMutexLock(RecursiveMutex& mutex) CR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~RecursiveMutexLock() CR_RELEASE() { mutex_.unlock(); }
    RecursiveMutexLock(const RecursiveMutexLock&) = delete;
    RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

private:
    RecursiveMutex& mutex_;
};

// Holds an os::Mutex from its construction to its end, except between
// Unlock and Lock, and waits on a std::condition_variable: a wait lets the
// mutex go and has it again when it returns, so to the analysis the mutex
// stays held across it. Wakes may be spurious, as with the standard waits.
// Not to be handed to other functions: a helper states CR_REQUIRES instead.
class CR_SCOPED_CAPABILITY UniqueLock {
public:
    explicit UniqueLock(Mutex& mutex) CR_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~UniqueLock() CR_RELEASE() {}  // lets go only when held
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void Unlock() CR_RELEASE() { lock_.unlock(); }
    void Lock() CR_ACQUIRE() { lock_.lock(); }

    // Waits for a notification of `changed` (or a spurious wake).
    void Wait(std::condition_variable& changed) { changed.wait(lock_); }
    // As Wait, or until `deadline` at the latest: std::cv_status::timeout
    // once it passed.
    template <class Clock, class Duration>
    std::cv_status WaitUntil(std::condition_variable& changed,
                             const std::chrono::time_point<Clock, Duration>& deadline) {
        return changed.wait_until(lock_, deadline);
    }
    // The standard lock underneath, for a wait that other code makes on the
    // holder's behalf (an injected clock): that code must hand the mutex
    // back held, as the waits above do.
    std::unique_lock<std::mutex>& native() noexcept { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

// Lets go of an os::Mutex its caller holds (by any of the locks above) for
// its own scope, and takes it again at its end.
class CR_SCOPED_CAPABILITY MutexUnlock {
public:
    explicit MutexUnlock(Mutex& mutex) CR_RELEASE(mutex) : mutex_(mutex) { mutex_.unlock(); }
    ~MutexUnlock() CR_RELEASE() { mutex_.lock(); }
    MutexUnlock(const MutexUnlock&) = delete;
    MutexUnlock& operator=(const MutexUnlock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace os
