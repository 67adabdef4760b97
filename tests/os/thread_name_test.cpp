#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

#include "os/thread_id.h"
#include "os/thread_name.h"

namespace {

// The name of thread `id` as the system lists it; "?" when it is not listed.
std::string ListedName(uint32_t id) {
    for (const os::ThreadInfo& thread : os::ProcessThreads())
        if (thread.id == id) return thread.name;
    return "?";
}

TEST(ThreadName, ANamedThreadIsListedUnderItsName) {
    std::promise<uint32_t> started;
    std::promise<void> finish;
    std::thread worker([&] {
        os::SetCurrentThreadName("cr-test-worker");
        started.set_value(os::CurrentThreadId());
        finish.get_future().wait();
    });
    const uint32_t id = started.get_future().get();
    const std::string name = ListedName(id);
    finish.set_value();
    worker.join();
#ifdef __linux__
    EXPECT_EQ(name, "cr-test-worker");
#else
    // A Windows without thread descriptions lists the worker unnamed.
    EXPECT_TRUE(name == "cr-test-worker" || name.empty()) << name;
#endif
    EXPECT_NE(name, "?") << "the worker is not among the process's threads";
    EXPECT_NE(ListedName(os::CurrentThreadId()), "?");
}

}  // namespace
