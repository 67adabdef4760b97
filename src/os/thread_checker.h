#pragma once
// Checks, in debug builds, a header's thread rule at run time:
// - ThreadChecker: members that only their owner thread may touch. It binds to
//   the first thread that checks and fails loudly when another thread checks.
//   It is also a capability for the analysis of os/thread_annotations.h, so
//   members declared CR_GUARDED_BY(checker_) may be used only after
//   CR_CHECK_ON_OWNER_THREAD(checker_) in the same function.
// - CR_CHECK_NOT_ON_THREAD(id, why): a call that would wait for thread `id`
//   (join it, wait for its report) must not run on that thread itself.
// A failed check writes "thread rule broken: <what>" with the place to the
// standard error and aborts. Release builds (NDEBUG) check nothing and the
// checker holds nothing.
//
// Not for data shared between threads: that needs a lock; the checker only
// proves that a rule "one thread only" is kept.
#include <thread>

#include "os/thread_annotations.h"

namespace os {

// Writes the broken rule and where, then aborts.
[[noreturn]] void ThreadRuleBroken(const char* what, const char* file, int line);

class CR_CAPABILITY("owner thread") ThreadChecker {
public:
    ThreadChecker() = default;
    ThreadChecker(const ThreadChecker&) = delete;
    ThreadChecker& operator=(const ThreadChecker&) = delete;

#ifndef NDEBUG
    // Binds to the calling thread when unbound; aborts on any other thread.
    void Check(const char* file, int line) CR_ASSERT_CAPABILITY(this);
    // Unbinds: the next thread to check becomes the owner (the object was
    // handed over, e.g. built on one thread and then used by its worker).
    void Detach();

private:
    std::mutex bindLock_;  // two threads check at once only when the rule is broken
    std::thread::id owner_;
#else
    void Check(const char*, int) CR_ASSERT_CAPABILITY(this) {}
    void Detach() {}
#endif
};

}  // namespace os

#define CR_CHECK_ON_OWNER_THREAD(checker) (checker).Check(__FILE__, __LINE__)

#ifndef NDEBUG
#define CR_CHECK_NOT_ON_THREAD(id, why) \
    ((std::this_thread::get_id() == (id)) ? ::os::ThreadRuleBroken(why, __FILE__, __LINE__) : static_cast<void>(0))
#else
#define CR_CHECK_NOT_ON_THREAD(id, why) static_cast<void>(0)
#endif
