#pragma once
// The wait between two periodic passes of a condition's own thread, made a
// separate object so that tests can drive the passes by hand.
//
// Thread rules: Wait is called by the condition's thread only; Stop from any
// other thread, once or more; after Stop every Wait returns kStop at once.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace Product::Integration::ConditionManager {

class PassTimer {
public:
    enum class Wake : bool { kPass, kStop };
    virtual ~PassTimer() = default;
    // Returns when the next pass is due, or kStop once Stop was called.
    virtual Wake Wait() = 0;
    virtual void Stop() = 0;
};

// Makes the timer of one condition for a period in milliseconds.
using PassTimerFactory = std::function<std::unique_ptr<PassTimer>(uint32_t periodMs)>;

// A pass every `periodMs` of real (steady) time.
class PeriodicPassTimer final : public PassTimer {
public:
    explicit PeriodicPassTimer(uint32_t periodMs) : period_(periodMs) {}
    Wake Wait() override {
        std::unique_lock lock(mutex_);
        return stopped_.wait_for(lock, period_, [this] { return stop_; }) ? Wake::kStop : Wake::kPass;
    }
    void Stop() override {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        stopped_.notify_all();
    }

private:
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable stopped_;
    bool stop_ = false;
};

}  // namespace Product::Integration::ConditionManager
