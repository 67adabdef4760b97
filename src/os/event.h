#pragma once
// Auto-reset events and waiting for the first of several.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>

namespace os {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr int kWaitTimeout = -1;

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
    void Set() noexcept;
    void Reset() noexcept;
    // True when signalled within `timeoutMs` (kInfinite: no limit).
    bool Wait(uint32_t timeoutMs) noexcept;

    struct Native;
    Native& native() noexcept { return *native_; }

private:
    std::unique_ptr<Native> native_;
};

// Waits until one of `events` is signalled and consumes that one signal only.
// When several are signalled the lowest index wins, so callers list events in
// priority order. Returns the index, or kWaitTimeout.
int WaitAny(std::initializer_list<AutoResetEvent*> events, uint32_t timeoutMs) noexcept;

}  // namespace os
