#pragma once
// Bench pieces for the network conditions: synthetic network states, a
// provider the test scripts, a host-resolution condition asking a resolver
// of the test's own, and a manager that builds that one in
// place of the module's.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "condition_test_support.h"
#include "conditions/network/can_resolve_host.h"
#include "conditions/network/shared_resolver.h"
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
    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, INetworkProvider::iid) ? static_cast<INetworkProvider*>(this) : nullptr;
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

// Names that resolve, switched by the test; counts the questions. A
// question about a name made to hang blocks, as on a DNS server that drops
// packets, until the name is let go; its answer is read when it is let go.
class FakeNames {
public:
    void Set(const std::wstring& name, bool resolves) {
        std::lock_guard lock(mutex_);
        names_[name] = resolves;
    }
    void Hang(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        hung_[name] = true;
    }
    void LetGo(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        hung_[name] = false;
        changed_.notify_all();
    }
    void LetAllGo() {
        std::lock_guard lock(mutex_);
        hung_.clear();
        changed_.notify_all();
    }
    bool Resolve(const std::wstring& name) {
        std::unique_lock lock(mutex_);
        ++questions_[name];
        peak_ = std::max(peak_, ++asking_);
        changed_.notify_all();
        changed_.wait(lock, [&] { return !hung_[name]; });
        --asking_;
        ++answered_[name];
        changed_.notify_all();
        return names_[name];
    }
    int Questions(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        return questions_[name];
    }
    // Waits (real time) until `name` was asked at least `count` times in all,
    // or answered that many times.
    bool WaitForQuestions(const std::wstring& name, int count) { return WaitFor(questions_, name, count); }
    bool WaitForAnswers(const std::wstring& name, int count) { return WaitFor(answered_, name, count); }
    // Questions blocked or running now, and the most there ever were at once.
    int Asking() {
        std::lock_guard lock(mutex_);
        return asking_;
    }
    int PeakAsking() {
        std::lock_guard lock(mutex_);
        return peak_;
    }

private:
    bool WaitFor(std::map<std::wstring, int>& counts, const std::wstring& name, int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, testing_support::kPatience, [&] { return counts[name] >= count; });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::wstring, bool> names_;
    std::map<std::wstring, bool> hung_;
    std::map<std::wstring, int> questions_;
    std::map<std::wstring, int> answered_;
    int asking_ = 0;
    int peak_ = 0;
};

// The resolver the test host-resolution conditions ask: set by the test
// before building one (and kept until they are gone).
struct ResolveBench {
    static inline Product::Integration::ConditionManager::SharedResolver* resolver = nullptr;
};

// A resolver of the test's own asking `names`, or DNS when it is null.
inline Product::Integration::ConditionManager::SharedResolver::Options ResolverOptions(
    FakeNames* names, std::chrono::milliseconds period = std::chrono::seconds(60)) {
    using Product::Integration::ConditionManager::SharedResolver;
    SharedResolver::Options options;
    options.resolve = [names](const std::wstring& name) {
        if (!names) return SharedResolver::ResolveByDns(name);
        return names->Resolve(name) ? SharedResolver::Answer::kA : SharedResolver::Answer::kNone;
    };
    options.period = period;
    return options;
}

// Records the answers a resolver gives it; `during`, when set, runs inside the call.
class ResolverAnswers final : public SharedResolver::Subscriber {
public:
    void OnResolved(const SharedResolver::Resolution& resolution) override {
        {
            std::lock_guard lock(mutex_);
            answers_.push_back(resolution.resolves());
        }
        changed_.notify_all();
        if (during) during();
    }
    std::vector<bool> Got() const {
        std::lock_guard lock(mutex_);
        return answers_;
    }
    bool WaitForCount(size_t count) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, testing_support::kPatience, [&] { return answers_.size() >= count; });
    }
    std::function<void()> during;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<bool> answers_;
};

class TestCanResolveHost final : public Product::Integration::ConditionManager::ConditionCanResolveHost {
public:
    TestCanResolveHost() : ConditionCanResolveHost(*ResolveBench::resolver) {}
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
