#pragma once
// Notification of changes of the machine's network addresses.
//
// Windows: NotifyAddrChange with an overlapped record whose event is waited
// on; CancelIPChangeNotify ends the request. It reports changes of the IPv4
// address table only.
// Linux: a netlink socket subscribed to the link, address (IPv4 and IPv6) and
// route groups. Any message counts as a change; the messages themselves are
// not read for content, the caller re-reads everything. An overrun of the
// socket's buffer (ENOBUFS: messages were lost) counts as a change too.
//
// Thread rule: one thread uses a watch at a time (the listener thread).
#include <cstdint>
#include <memory>

#include "os/event.h"

namespace os {

class AddressChangeWatch {
public:
    enum class WaitResult : uint8_t {
        kChanged,  // an address changed since Register
        kStopped,  // `stop` was signalled
        kTimeout,  // neither within the time limit
        kFailed,   // the wait itself failed
    };

    AddressChangeWatch();
    ~AddressChangeWatch();  // cancels a request still in place
    AddressChangeWatch(const AddressChangeWatch&) = delete;
    AddressChangeWatch& operator=(const AddressChangeWatch&) = delete;

    // 0, or the system's error when the watch could not make what it waits
    // on (Windows: the notify event).
    uint32_t CreationError() const noexcept;

    // Puts a request for the next change in place (nothing when one is
    // already in place and has not fired). 0 when it is in place; otherwise
    // the system's error (Windows: NotifyAddrChange's result other than
    // ERROR_IO_PENDING; Linux: a libnl error number).
    [[nodiscard]] uint32_t Register();

    // Waits for a change or for `stop`, whichever comes first (the change wins
    // a tie). A change consumes the request: Register again before the next
    // wait. On Linux every message waiting on the socket is taken, so a burst
    // of changes gives one kChanged.
    WaitResult Wait(AutoResetEvent& stop, uint32_t timeoutMs);

    // Withdraws the request in place, if any.
    void Cancel();

    // Times Wait returned because something woke it (a change or the stop
    // event), as opposed to a time-out.
    uint64_t WakeUps() const noexcept { return wakeUps_; }

    struct Native;

private:
    std::unique_ptr<Native> native_;
    uint64_t wakeUps_ = 0;
};

}  // namespace os
