#pragma once
// A provider subscriber for tests: it reads the state in each notification,
// as a condition does, keeps the last one, counts the notifications and the
// reads that failed, and lets a test wait for a state. Notifications arrive
// on the provider's thread; the accessors may be called from any thread.
// Reports through its accessors only (no test assertions), so that it also
// serves scenarios run in a child process.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "network/network_provider_interface.h"
#include "network/network_state.h"

namespace network_test {

class StateWatcher final : public Product::Integration::INetworkProvider::IEvents {
public:
    using NetworkState = Product::Integration::NetworkState;

    explicit StateWatcher(Product::Integration::INetworkProvider& provider) : provider_(provider) {}

    int32_t OnNetworkStateChanged() override {
        NetworkState state;
        const int32_t status = provider_.GetState(state);
        {
            std::lock_guard lock(mutex_);
            last_ = std::move(state);
            ++count_;
            if (status != 0) ++failedReads_;
        }
        changed_.notify_all();
        return status;
    }

    int count() {
        std::lock_guard lock(mutex_);
        return count_;
    }
    int failedReads() {
        std::lock_guard lock(mutex_);
        return failedReads_;
    }
    NetworkState last() {
        std::lock_guard lock(mutex_);
        return last_;
    }
    // Whether a notification brings a state that satisfies `test` within `timeout`.
    bool AwaitState(const std::function<bool(const NetworkState&)>& test,
                    std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return count_ > 0 && test(last_); });
    }

private:
    Product::Integration::INetworkProvider& provider_;
    std::mutex mutex_;
    std::condition_variable changed_;
    NetworkState last_;
    int count_ = 0;
    int failedReads_ = 0;
};

}  // namespace network_test
