#include "os/thread_id.h"

#include <unistd.h>

namespace os {

// gettid is a system call; the id is cached per thread because lock
// operations ask for it on every call.
uint32_t CurrentThreadId() noexcept {
    thread_local const uint32_t id = static_cast<uint32_t>(::gettid());
    return id;
}

}  // namespace os
