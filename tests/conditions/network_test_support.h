#pragma once
// Bench pieces for the network conditions: synthetic network states, a
// provider the test scripts, a host-resolution condition with a hand-driven
// timer and a switchable resolver, and a manager that builds that one in
// place of the module's.
#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "condition_test_support.h"
#include "conditions/network/can_resolve_host.h"
#include "conditions/network/pass_timer.h"
#include "network/network_provider_interface.h"
#include "network/network_state.h"
#include "qv/status.h"
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

// Holds one thread at a chosen point until the test opens it: Arm, then the
// next thread that reaches Reach() waits there until Open.
class Gate {
public:
    void Arm() {
        std::lock_guard lock(mutex_);
        armed_ = true;
        open_ = false;
    }
    // The point where a thread may be held; passes at once unless armed.
    void Reach() {
        std::unique_lock lock(mutex_);
        if (!armed_) return;
        armed_ = false;
        held_ = true;
        changed_.notify_all();
        changed_.wait_for(lock, testing_support::kPatience, [this] { return open_; });
        held_ = false;
    }
    // True once a thread is held (within the patience).
    bool WaitUntilHeld() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, testing_support::kPatience, [this] { return held_; });
    }
    void Open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool armed_ = false, held_ = false, open_ = false;
};

// A network provider for one condition made by hand: its Start may be
// refused, its state is set by the test, a read may be held at `readGate`
// (after the state was copied), and notifications run on the caller of
// Notify with no lock held.
class ScriptedProvider final : public Product::Integration::INetworkProvider {
public:
    void* QueryInterface(const GUID& iid) override {
        return qv::GuidEquals(iid, INetworkProvider::iid) ? static_cast<INetworkProvider*>(this) : nullptr;
    }
    int32_t Start() override {
        std::lock_guard lock(mutex_);
        if (startStatus_ != 0) return startStatus_;
        ++starts_;
        return 0;
    }
    int32_t Stop() override {
        std::lock_guard lock(mutex_);
        return starts_ > 0 ? (--starts_, 0) : qv::status::kFunctionFailed;
    }
    int32_t GetState(Product::Integration::NetworkState& out) override {
        {
            std::lock_guard lock(mutex_);
            out = state_;
        }
        readGate.Reach();
        return 0;
    }
    int32_t Subscribe(IEvents* subscriber) override {
        std::lock_guard lock(mutex_);
        if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end())
            return qv::status::kFunctionFailed;
        subscribers_.push_back(subscriber);
        return 0;
    }
    int32_t Unsubscribe(IEvents* subscriber) override {
        std::lock_guard lock(mutex_);
        const auto found = std::find(subscribers_.begin(), subscribers_.end(), subscriber);
        if (found == subscribers_.end()) return qv::status::kFunctionFailed;
        subscribers_.erase(found);
        return 0;
    }

    void RefuseStart(int32_t status) {
        std::lock_guard lock(mutex_);
        startStatus_ = status;
    }
    void SetState(const Product::Integration::NetworkState& state) {
        std::lock_guard lock(mutex_);
        state_ = state;
    }
    void Notify() {
        std::vector<IEvents*> subscribers;
        {
            std::lock_guard lock(mutex_);
            subscribers = subscribers_;
        }
        for (IEvents* subscriber : subscribers) static_cast<void>(subscriber->OnNetworkStateChanged());
    }
    int Starts() {
        std::lock_guard lock(mutex_);
        return starts_;
    }
    size_t Subscribers() {
        std::lock_guard lock(mutex_);
        return subscribers_.size();
    }

    Gate readGate;

private:
    std::mutex mutex_;
    int32_t startStatus_ = 0;
    int starts_ = 0;
    std::vector<IEvents*> subscribers_;
    Product::Integration::NetworkState state_;
};

// Gives `condition` the provider as the manager would.
inline void InjectProvider(ICondition& condition, Product::Integration::INetworkProvider& provider) {
    condition.Inject(Product::Integration::INetworkProvider::iid,
                     static_cast<Product::Integration::INetworkProvider*>(&provider));
}

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

// Names that resolve, switched by the test; counts the questions. An
// answer may be held at `answerGate` after it was decided, as a slow DNS
// server's answer arrives late.
class FakeNames {
public:
    void Set(const std::wstring& name, bool resolves) {
        std::lock_guard lock(mutex_);
        names_[name] = resolves;
    }
    bool Resolve(const std::wstring& name) {
        bool answer = false;
        {
            std::lock_guard lock(mutex_);
            ++questions_;
            answer = names_[name];
        }
        answerGate.Reach();
        return answer;
    }
    Gate answerGate;
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
