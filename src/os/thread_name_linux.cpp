#include "os/thread_name.h"

#include <dirent.h>
#include <pthread.h>

#include <cstdlib>
#include <fstream>

namespace os {

void SetCurrentThreadName(const std::string& name) noexcept {
    // The kernel keeps 15 bytes and the terminating NUL.
    const std::string cut = name.substr(0, 15);
    static_cast<void>(::pthread_setname_np(::pthread_self(), cut.c_str()));
}

std::vector<ThreadInfo> ProcessThreads() {
    std::vector<ThreadInfo> threads;
    DIR* dir = ::opendir("/proc/self/task");
    if (!dir) return threads;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        ThreadInfo thread;
        thread.id = static_cast<uint32_t>(std::strtoul(entry->d_name, nullptr, 10));
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::getline(comm, thread.name);
        threads.push_back(std::move(thread));
    }
    ::closedir(dir);
    return threads;
}

}  // namespace os
