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
// Other compilers see plain declarations: the macros expand to nothing.
// Do not use os::Mutex with std::condition_variable (it needs std::mutex);
// keep such mutexes as they are, or use std::condition_variable_any.
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
    std::mutex mutex_;
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

}  // namespace os
