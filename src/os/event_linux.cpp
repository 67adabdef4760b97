// Events are eventfd counters: Set writes 1, a successful wait reads (and so
// clears) the counter, poll() gives wait-any with a timeout.
#include "os/event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "os/event_native_linux.h"

namespace os {

AutoResetEvent::AutoResetEvent() : native_(std::make_unique<Native>()) {
    native_->fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (native_->fd < 0) creationError_ = static_cast<uint32_t>(errno);
}

AutoResetEvent::~AutoResetEvent() {
    if (native_->fd >= 0) ::close(native_->fd);
}

bool AutoResetEvent::Valid() const noexcept { return native_->fd >= 0; }

void AutoResetEvent::Set() noexcept {
    const uint64_t one = 1;
    // EAGAIN only when the counter is saturated, which means "already set".
    [[maybe_unused]] ssize_t n = ::write(native_->fd, &one, sizeof one);
}

void AutoResetEvent::Reset() noexcept {
    uint64_t value;
    [[maybe_unused]] ssize_t n = ::read(native_->fd, &value, sizeof value);
}

bool AutoResetEvent::Wait(uint32_t timeoutMs) noexcept { return WaitAny({this}, timeoutMs) == 0; }

namespace {
// Consumes the signal of `fd`; false when another waiter took it first.
bool TryConsume(int fd) {
    uint64_t value;
    return ::read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}
}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): over the limit; to be split
int WaitAny(std::span<AutoResetEvent* const> events, uint32_t timeoutMs) noexcept {
    using Clock = std::chrono::steady_clock;
    if (events.empty() || events.size() > kMaxWaitEvents) return kWaitFailed;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    // A fixed array: poll() would silently skip the negative fd of an invalid
    // event, so those are refused here, as WaitForMultipleObjects refuses them.
    std::array<pollfd, kMaxWaitEvents> fds{};
    for (size_t i = 0; i < events.size(); ++i) {
        if (!events[i] || !events[i]->Valid()) return kWaitFailed;
        fds[i] = pollfd{events[i]->native().fd, POLLIN, 0};
    }
    for (;;) {
        int waitMs = -1;
        if (timeoutMs != kInfinite) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            waitMs = left > 0 ? static_cast<int>(left) : 0;
        }
        int ready = ::poll(fds.data(), events.size(), waitMs);
        if (ready < 0 && errno != EINTR) return kWaitFailed;
        if (ready > 0) {
            for (size_t i = 0; i < events.size(); ++i) {
                if ((fds[i].revents & POLLIN) && TryConsume(fds[i].fd)) return static_cast<int>(i);
                // An fd closed or broken under the wait would report this at once, forever.
                if (fds[i].revents & (POLLNVAL | POLLERR)) return kWaitFailed;
            }
        }
        if (ready == 0 && waitMs == 0) return kWaitTimeout;
        if (timeoutMs != kInfinite && Clock::now() >= deadline) {
            // One last non-blocking look so that a signal raced with the deadline is not lost.
            for (size_t i = 0; i < events.size(); ++i)
                if (TryConsume(fds[i].fd)) return static_cast<int>(i);
            return kWaitTimeout;
        }
    }
}

}  // namespace os
