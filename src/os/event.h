#pragma once
// Auto-reset events and waiting for the first of several.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

namespace os {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;
// WaitAny results other than an index: the time limit passed, or the wait
// could not be made at all (see WaitAny).
constexpr int kWaitTimeout = -1;
constexpr int kWaitFailed = -2;
// Most events one WaitAny accepts: Windows' MAXIMUM_WAIT_OBJECTS, applied on
// every build so that both behave alike.
constexpr size_t kMaxWaitEvents = 64;

// Unnamed, auto-reset, initially unsignalled. Set wakes exactly one wait and
// the event is then unsignalled again; setting an already set event is a no-op.
// All operations are callable from any thread.
class AutoResetEvent {
public:
    AutoResetEvent();
    ~AutoResetEvent();
    AutoResetEvent(const AutoResetEvent&) = delete;
    AutoResetEvent& operator=(const AutoResetEvent&) = delete;

    // False only when the operating system refused to create the event.
    bool Valid() const noexcept;
    // The system's error that refused the event (Windows: GetLastError,
    // Linux: errno of eventfd); 0 for a valid event.
    uint32_t CreationError() const noexcept { return creationError_; }
    void Set() noexcept;
    void Reset() noexcept;
    // True when signalled within `timeoutMs` (kInfinite: no limit); false on
    // a time-out and also when the wait failed. Callers that must tell the two
    // apart (a loop that would otherwise spin) use WaitAny({&event}, …).
    bool Wait(uint32_t timeoutMs) noexcept;

    struct Native;
    Native& native() noexcept { return *native_; }

private:
    std::unique_ptr<Native> native_;
    uint32_t creationError_ = 0;
};

// Waits until one of `events` is signalled and consumes that one signal only.
// When several are signalled the lowest index wins, so callers list events in
// priority order. Returns the index; kWaitTimeout when `timeoutMs` passed
// first; kWaitFailed when the wait could not be made: at once, without
// waiting, for an empty list, more than kMaxWaitEvents events, or a null or
// invalid event, and whenever the operating system's wait reports an error.
// A failed wait usually fails again, so a loop must not simply retry it.
int WaitAny(std::span<AutoResetEvent* const> events, uint32_t timeoutMs) noexcept;
inline int WaitAny(std::initializer_list<AutoResetEvent*> events, uint32_t timeoutMs) noexcept {
    return WaitAny(std::span<AutoResetEvent* const>(events.begin(), events.size()), timeoutMs);
}

}  // namespace os
