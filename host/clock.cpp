#include "host/clock.h"

#include <algorithm>

namespace host {

void Clock::AddListener(Listener* listener) {
    os::MutexLock lock(listenersMutex_);
    listeners_.push_back(listener);
}

void Clock::RemoveListener(Listener* listener) {
    os::MutexLock lock(listenersMutex_);
    listeners_.erase(std::remove(listeners_.begin(), listeners_.end(), listener), listeners_.end());
}

void Clock::NotifyTimeMoved() {
    // Held while calling, so that RemoveListener returns only once no call
    // to the removed listener is in progress.
    os::MutexLock lock(listenersMutex_);
    for (Listener* listener : listeners_) listener->OnTimeMoved();
}

std::chrono::milliseconds SystemClock::Now() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

void SystemClock::WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                            std::chrono::milliseconds due) {
    // Now() truncates, so once the steady clock reaches `due` Now() does too.
    cv.wait_until(lock, std::chrono::steady_clock::time_point(due));
}

std::chrono::milliseconds ManualClock::Now() const {
    return std::chrono::milliseconds(now_.load(std::memory_order_acquire));
}

void ManualClock::WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                            std::chrono::milliseconds) {
    // Time moves only through Advance, which notifies the listeners; a
    // listener takes the waiter's mutex before notifying, so a wake-up
    // cannot fall between the waiter's check of Now() and this wait.
    cv.wait(lock);
}

void ManualClock::Advance(std::chrono::milliseconds ms) {
    if (ms.count() <= 0) return;
    now_.fetch_add(ms.count(), std::memory_order_acq_rel);
    NotifyTimeMoved();
}

}  // namespace host
