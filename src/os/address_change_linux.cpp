#include <linux/rtnetlink.h>
#include <netlink/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "os/address_change.h"
#include "os/event_native_linux.h"
#include "os/netlink_linux.h"

namespace os {

struct AddressChangeWatch::Native {
    netlink::Socket socket;
};

AddressChangeWatch::AddressChangeWatch() : native_(std::make_unique<Native>()) {}
AddressChangeWatch::~AddressChangeWatch() { Cancel(); }

uint32_t AddressChangeWatch::CreationError() const noexcept { return 0; }

uint32_t AddressChangeWatch::Register() {
    // The socket keeps receiving once subscribed: one request serves every
    // later wait until Cancel.
    if (native_->socket) return 0;
    netlink::Socket socket(nl_socket_alloc());
    if (!socket) return NLE_NOMEM;
    if (int e = nl_connect(socket.get(), NETLINK_ROUTE); e < 0) return static_cast<uint32_t>(-e);
    if (int e = nl_socket_add_memberships(socket.get(), RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR,
                                          RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE, 0);
        e < 0)
        return static_cast<uint32_t>(-e);
    if (int e = nl_socket_set_nonblocking(socket.get()); e < 0) return static_cast<uint32_t>(-e);
    native_->socket = std::move(socket);
    return 0;
}

namespace {

// Takes every message waiting on the socket.
void Drain(int fd) {
    char buffer[16384];
    for (;;) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n >= 0) continue;
        // ENOBUFS: the kernel dropped messages; the caller re-reads everything
        // anyway, so the loss is only noted by going on.
        if (errno == ENOBUFS || errno == EINTR) continue;
        return;  // EAGAIN: nothing left
    }
}

// What the ready descriptors of a wait mean: the socket's and the stop
// event's. Nullopt when nothing is left for this wait (another waiter took
// the stop signal).
std::optional<AddressChangeWatch::WaitResult> ReadReady(const pollfd& socket, const pollfd& stop) {
    using WaitResult = AddressChangeWatch::WaitResult;
    // An overrun shows as POLLERR on the socket: a change as well.
    if (socket.revents & (POLLIN | POLLERR)) {
        Drain(socket.fd);
        return WaitResult::kChanged;
    }
    if (socket.revents & POLLNVAL) return WaitResult::kFailed;
    if (stop.revents & POLLIN) {
        uint64_t value;
        if (::read(stop.fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) return WaitResult::kStopped;
        return std::nullopt;  // another waiter took the signal
    }
    if (stop.revents & (POLLNVAL | POLLERR)) return WaitResult::kFailed;
    return std::nullopt;
}

}  // namespace

AddressChangeWatch::WaitResult AddressChangeWatch::Wait(AutoResetEvent& stop, uint32_t timeoutMs) {
    if (!native_->socket || !stop.Valid()) return WaitResult::kFailed;
    const int socketFd = nl_socket_get_fd(native_->socket.get());
    const int stopFd = stop.native().fd;
    const PollDeadline deadline(timeoutMs);
    for (;;) {
        const int waitMs = deadline.LeftMs();
        pollfd fds[2] = {{socketFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, waitMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return WaitResult::kFailed;
        }
        if (ready == 0) {
            if (waitMs == 0 || deadline.Passed()) return WaitResult::kTimeout;
            continue;
        }
        ++wakeUps_;
        if (const std::optional<WaitResult> result = ReadReady(fds[0], fds[1])) return *result;
    }
}

void AddressChangeWatch::Cancel() { native_->socket.reset(); }

}  // namespace os
