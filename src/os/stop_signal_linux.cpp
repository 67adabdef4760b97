// The signal handler only writes one byte to a pipe (async-signal-safe); the
// watcher's thread reads the pipe and calls onStop. A zero byte written by the
// destructor ends the thread.
#include "os/stop_signal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace os {

namespace {
std::atomic<int> signalPipe{-1};  // write end, read by the handler

void OnSignal(int) {
    const int saved = errno;
    const char request = 1;
    if (const int fd = signalPipe.load(); fd >= 0) static_cast<void>(::write(fd, &request, 1));
    errno = saved;
}
}  // namespace

struct StopSignalWatcher::Native {
    int pipe[2] = {-1, -1};
    struct sigaction oldInterrupt {};
    struct sigaction oldTerminate {};
    struct sigaction oldPipe {};
    std::thread thread;
    bool active = false;
};

StopSignalWatcher::StopSignalWatcher(std::function<void()> onStop) : native_(std::make_unique<Native>()) {
    Native& n = *native_;
    if (::pipe2(n.pipe, O_CLOEXEC) != 0) return;
    signalPipe.store(n.pipe[1]);
    n.thread = std::thread([fd = n.pipe[0], onStop = std::move(onStop)] {
        for (;;) {
            char byte = 0;
            const ssize_t got = ::read(fd, &byte, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0 || byte == 0) return;
            onStop();
        }
    });
    struct sigaction action {};
    action.sa_handler = OnSignal;
    ::sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;  // other threads' reads and waits go on
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigemptyset(&ignore.sa_mask);
    n.active = ::sigaction(SIGINT, &action, &n.oldInterrupt) == 0 &&
               ::sigaction(SIGTERM, &action, &n.oldTerminate) == 0 && ::sigaction(SIGPIPE, &ignore, &n.oldPipe) == 0;
}

StopSignalWatcher::~StopSignalWatcher() {
    Native& n = *native_;
    if (n.pipe[1] >= 0) {
        ::sigaction(SIGINT, &n.oldInterrupt, nullptr);
        ::sigaction(SIGTERM, &n.oldTerminate, nullptr);
        ::sigaction(SIGPIPE, &n.oldPipe, nullptr);
        signalPipe.store(-1);
        const char quit = 0;
        while (::write(n.pipe[1], &quit, 1) < 0 && errno == EINTR) {}
    }
    if (n.thread.joinable()) n.thread.join();
    for (int fd : n.pipe)
        if (fd >= 0) ::close(fd);
}

bool StopSignalWatcher::Active() const noexcept { return native_->active; }

}  // namespace os
