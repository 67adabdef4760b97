// Events are eventfd counters: Set writes 1, a successful wait reads (and so
// clears) the counter, poll() gives wait-any with a timeout.
#include "os/event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>

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

// Fills `fds` with the descriptors of `events`, in order. False for a null or
// invalid event: poll() would silently skip its negative fd, so it is refused
// here, as WaitForMultipleObjects refuses one.
bool Describe(std::span<AutoResetEvent* const> events, std::span<pollfd> fds) {
    for (size_t i = 0; i < events.size(); ++i) {
        if (!events[i] || !events[i]->Valid()) return false;
        fds[i] = pollfd{events[i]->native().fd, POLLIN, 0};
    }
    return true;
}

// After poll() found some of `fds` ready: the index of the first whose signal
// could be consumed, kWaitFailed for one broken before it, nullopt when other
// waiters took every signal.
std::optional<int> TakeReady(std::span<const pollfd> fds) {
    for (size_t i = 0; i < fds.size(); ++i) {
        if ((fds[i].revents & POLLIN) && TryConsume(fds[i].fd)) return static_cast<int>(i);
        // An fd closed or broken under the wait would report this at once, forever.
        if (fds[i].revents & (POLLNVAL | POLLERR)) return kWaitFailed;
    }
    return std::nullopt;
}

// Without waiting: the index of the first of `fds` whose signal could be
// consumed; kWaitTimeout when none.
int TakeAnySignalled(std::span<const pollfd> fds) {
    for (size_t i = 0; i < fds.size(); ++i)
        if (TryConsume(fds[i].fd)) return static_cast<int>(i);
    return kWaitTimeout;
}
}  // namespace

int WaitAny(std::span<AutoResetEvent* const> events, uint32_t timeoutMs) noexcept {
    if (events.empty() || events.size() > kMaxWaitEvents) return kWaitFailed;
    const PollDeadline deadline(timeoutMs);
    std::array<pollfd, kMaxWaitEvents> storage{};
    const std::span<pollfd> fds(storage.data(), events.size());
    if (!Describe(events, fds)) return kWaitFailed;
    for (;;) {
        const int waitMs = deadline.LeftMs();
        const int ready = ::poll(fds.data(), fds.size(), waitMs);
        if (ready < 0 && errno != EINTR) return kWaitFailed;
        if (ready > 0) {
            if (const std::optional<int> taken = TakeReady(fds)) return *taken;
        }
        if (ready == 0 && waitMs == 0) return kWaitTimeout;
        // One last non-blocking look so that a signal raced with the deadline is not lost.
        if (deadline.Passed()) return TakeAnySignalled(fds);
    }
}

}  // namespace os
