#pragma once
// Bench pieces for the network conditions: synthetic network states, a
// host-resolution condition with a hand-driven timer and a switchable
// resolver, and a manager that builds that one in place of the module's.
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "condition_test_support.h"
#include "conditions/network/can_resolve_host.h"
#include "conditions/network/pass_timer.h"
#include "network/network_state.h"
#include "support/waiting.h"

namespace condition_testing {

// A state holding the given addresses (each text parsed as IPv4 or IPv6).
struct StateBuilder {
    Product::Integration::NetworkState state;
    StateBuilder& Unicast(std::initializer_list<const wchar_t*> texts) {
        return Add(texts, state.ipv4Addresses, state.ipv6Addresses);
    }
    StateBuilder& Gateways(std::initializer_list<const wchar_t*> texts) {
        return Add(texts, state.ipv4Gateways, state.ipv6Gateways);
    }
    StateBuilder& Dns(std::initializer_list<const wchar_t*> texts) {
        return Add(texts, state.ipv4DnsServers, state.ipv6DnsServers);
    }
    StateBuilder& Wins(std::initializer_list<const wchar_t*> texts) {
        return Add(texts, state.ipv4WinsServers, state.ipv6WinsServers);
    }

private:
    StateBuilder& Add(std::initializer_list<const wchar_t*> texts, Product::Integration::NetworkState::IPv4List& four,
                      Product::Integration::NetworkState::IPv6List& six) {
        for (const wchar_t* text : texts) {
            qv::Network::IPv4 a;
            qv::Network::IPv6 b;
            if (qv::Network::IPv4::FromString(a, text) == 0) {
                four.Insert(a);
            } else {
                EXPECT_EQ(qv::Network::IPv6::FromString(b, text), 0) << text;
                six.Insert(b);
            }
        }
        return *this;
    }
};

// A pass timer driven by the test: each Pass() lets the condition's thread
// run one pass and returns once it has finished it.
class ManualPassTimer final : public Product::Integration::ConditionManager::PassTimer {
public:
    explicit ManualPassTimer(uint32_t periodMs) : periodMs(periodMs) {}
    Wake Wait() override {
        std::unique_lock lock(mutex_);
        ++waits_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return due_ > 0 || stop_; });
        if (stop_) return Wake::kStop;
        --due_;
        ++taken_;
        return Wake::kPass;
    }
    void Stop() override {
        std::lock_guard lock(mutex_);
        stop_ = true;
        changed_.notify_all();
    }
    // Runs one pass on the condition's thread; false when it did not finish
    // within the patience. A pass has finished once the thread that took it
    // is back waiting: every pass taken is followed by one more Wait.
    bool Pass() {
        std::unique_lock lock(mutex_);
        const size_t target = taken_ + due_ + 1;
        ++due_;
        changed_.notify_all();
        return changed_.wait_for(lock, testing_support::kPatience, [&] { return taken_ >= target && waits_ > taken_; });
    }
    const uint32_t periodMs;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t waits_ = 0;  // Wait calls so far
    size_t taken_ = 0;  // passes the thread took
    size_t due_ = 0;    // passes asked for and not taken yet
    bool stop_ = false;
};

// Names that resolve, switched by the test; counts the questions.
class FakeNames {
public:
    void Set(const std::wstring& name, bool resolves) {
        std::lock_guard lock(mutex_);
        names_[name] = resolves;
    }
    bool Resolve(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        ++questions_;
        return names_[name];
    }
    int Questions() {
        std::lock_guard lock(mutex_);
        return questions_;
    }

private:
    std::mutex mutex_;
    std::map<std::wstring, bool> names_;
    int questions_ = 0;
};

// Where the test host-resolution conditions take their timers and names:
// set by the test before building one, read by the condition's constructor.
struct ResolveBench {
    static inline std::mutex mutex;
    static inline std::vector<ManualPassTimer*> timers;  // in the order made; owned by the conditions
    static inline FakeNames* names = nullptr;            // null: real DNS
};

class TestCanResolveHost final : public Product::Integration::ConditionManager::ConditionCanResolveHost {
public:
    TestCanResolveHost()
        : ConditionCanResolveHost(
              [](uint32_t periodMs) {
                  auto timer = std::make_unique<ManualPassTimer>(periodMs);
                  std::lock_guard lock(ResolveBench::mutex);
                  ResolveBench::timers.push_back(timer.get());
                  return timer;
              },
              [names = ResolveBench::names](const std::wstring& name) {
                  return names ? names->Resolve(name) : ResolveByDns(name);
              }) {}
};

class ResolveTestManager final : public Product::Integration::ConditionManager::Manager {
protected:
    int32_t InitFactory() override {
        const int32_t status = Manager::InitFactory();
        AddToFactory<TestCanResolveHost>();
        return status;
    }
};

}  // namespace condition_testing
