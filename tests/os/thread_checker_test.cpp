// Thread rules checked at run time in debug builds: a broken one stops the
// process with the rule it broke.
#include <gtest/gtest.h>

#include <thread>

#include "os/thread_checker.h"
#include "os/worker_thread.h"

namespace {

#ifdef NDEBUG
#define SKIP_IN_RELEASE() GTEST_SKIP() << "thread rules are checked in debug builds only"
#else
#define SKIP_IN_RELEASE() static_cast<void>(0)
#endif

TEST(ThreadCheckerDeathTest, AnotherThreadThanTheOwnerStopsTheProcess) {
    SKIP_IN_RELEASE();
    os::ThreadChecker checker;
    CR_CHECK_ON_OWNER_THREAD(checker);
    CR_CHECK_ON_OWNER_THREAD(checker);
    EXPECT_DEATH(std::thread([&] { CR_CHECK_ON_OWNER_THREAD(checker); }).join(),
                 "thread rule broken: called on another thread than its owner");

    // Handed over, it binds to the next thread that checks.
    checker.Detach();
    std::thread([&] { CR_CHECK_ON_OWNER_THREAD(checker); }).join();
    EXPECT_DEATH(CR_CHECK_ON_OWNER_THREAD(checker), "thread rule broken");
}

TEST(ThreadCheckerDeathTest, AWorkerStoppedFromItsOwnBodyStopsTheProcess) {
    SKIP_IN_RELEASE();
    EXPECT_DEATH(
        {
            os::WorkerThread worker;
            os::AutoResetEvent started;
            ASSERT_TRUE(worker.Start([&](os::AutoResetEvent&) {
                started.Set();
                worker.Stop();
            }));
            started.Wait(10000);
            worker.Stop();
        },
        "thread rule broken: called on another thread than its owner");
}

}  // namespace
