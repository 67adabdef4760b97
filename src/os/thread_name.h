#pragma once
// Names of threads, as debuggers, `top -H`, Process Explorer and cr-host's
// "status" show them. The module names each thread it starts ("cr-eval",
// "cr-net-watch", ...), so a person can tell its threads from the host's.
//
// Linux: pthread_setname_np (at most 15 bytes; longer names are cut) and
// /proc/self/task/*/comm. Windows: SetThreadDescription and
// GetThreadDescription, bound at run time (Windows 10 1607 and later; Wine
// has both); without them threads stay unnamed.
#include <cstdint>
#include <string>
#include <vector>

namespace os {

// Names the calling thread. Any thread; failures are ignored (a name is a
// help for people, never needed for correctness).
void SetCurrentThreadName(const std::string& name) noexcept;

struct ThreadInfo {
    uint32_t id = 0;   // the system's thread id
    std::string name;  // "" when the thread has none
};

// Every thread of this process, with its name.
std::vector<ThreadInfo> ProcessThreads();

}  // namespace os
