#include "os/thread_checker.h"

#include <cstdio>
#include <cstdlib>

namespace os {

void ThreadRuleBroken(const char* what, const char* file, int line) {
    std::fprintf(stderr, "thread rule broken: %s (%s:%d)\n", what, file, line);
    std::fflush(stderr);
    std::abort();
}

#ifndef NDEBUG
void ThreadChecker::Check(const char* file, int line) {
    const std::thread::id self = std::this_thread::get_id();
    std::lock_guard lock(bindLock_);
    if (owner_ == std::thread::id()) owner_ = self;
    if (owner_ != self) ThreadRuleBroken("called on another thread than its owner", file, line);
}

void ThreadChecker::Detach() {
    std::lock_guard lock(bindLock_);
    owner_ = std::thread::id();
}
#endif

}  // namespace os
