#pragma once
// Steady time for the host's services, injectable so that tests can move it
// by hand. A service that waits for a due time asks its clock to do the
// waiting and listens for time moving, so that a hand-driven clock wakes it
// without any real sleeping.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "os/thread_annotations.h"

namespace host {

class Clock {
public:
    // Told whenever the clock's time moves by something other than real time
    // passing. Called on the thread that moved the clock, with no lock of the
    // clock's users held; it may take its own locks but must not add or
    // remove listeners.
    class Listener {
    public:
        virtual void OnTimeMoved() = 0;

    protected:
        ~Listener() = default;
    };

    virtual ~Clock() = default;

    // Milliseconds since an arbitrary origin; never decreases. Any thread.
    virtual std::chrono::milliseconds Now() const = 0;

    // Blocks on `cv` (whose mutex `lock` holds) until it is notified or until
    // `due` may have been reached by this clock. May return spuriously:
    // callers re-check Now() against `due` under `lock`.
    virtual void WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                           std::chrono::milliseconds due) = 0;

    // Registration of listeners; any thread, but never from inside OnTimeMoved.
    void AddListener(Listener* listener);
    void RemoveListener(Listener* listener);

protected:
    // Calls every listener; the caller holds no lock of its own.
    void NotifyTimeMoved();

private:
    os::Mutex listenersMutex_;
    std::vector<Listener*> listeners_ CR_GUARDED_BY(listenersMutex_);
};

// The system's steady clock. Real time passing wakes waiters through their
// timed wait, so listeners are never called.
class SystemClock final : public Clock {
public:
    std::chrono::milliseconds Now() const override;
    void WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                   std::chrono::milliseconds due) override;
};

// A clock that stands still until Advance moves it. Waiters wait without a
// time limit and are woken through the listeners when time moves.
class ManualClock final : public Clock {
public:
    explicit ManualClock(std::chrono::milliseconds start = std::chrono::milliseconds(0)) : now_(start.count()) {}

    std::chrono::milliseconds Now() const override;
    void WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                   std::chrono::milliseconds due) override;

    // Moves time forward by `ms` and wakes every waiter. Any thread.
    void Advance(std::chrono::milliseconds ms);
    void Advance(int64_t ms) { Advance(std::chrono::milliseconds(ms)); }

private:
    std::atomic<int64_t> now_;
};

}  // namespace host
