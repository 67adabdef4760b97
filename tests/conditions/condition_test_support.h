#pragma once
// Test bench for the condition engine: a reference host with the services
// the manager needs (network provider stand-in, agent client notifications),
// a manager that also knows two test-only condition types, a switch board
// that drives the test leaves, and a recorder of notifications.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include <json/value.h>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/manager.h"
#include "host/agent_client_notifications.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"

namespace condition_testing {

using namespace Product::Integration::ConditionManager;

constexpr auto kPatience = std::chrono::seconds(10);

Json::Value ParseJson(const std::string& text);

class ConditionTestSwitch;

// Named boolean switches that test leaves ("test.Switch") follow. A host
// service, so that the leaves receive it through the manager's injection.
struct ISwitchBoard : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x0D7A31E6, 0x4F2B, 0x4C18, 0x8E57, 0xA9C3F01B6D24);
    virtual bool Value(const std::wstring& name) = 0;
    virtual void Attach(ConditionTestSwitch* leaf) = 0;
    virtual void Detach(ConditionTestSwitch* leaf) = 0;
    virtual void CountRecompute(const std::wstring& name) = 0;
    // Status that recomputing a leaf of `name` fails with (0: none).
    virtual int Error(const std::wstring& name) = 0;

protected:
    ~ISwitchBoard() = default;
};

// Thread rule: Set may be called from several threads at once; each leaf
// re-reads the switch under its own lock, so it ends on the last value set.
class SwitchBoard final : public ISwitchBoard {
public:
    static constexpr const wchar_t* kName = L"Test.SwitchBoard";

    void* QueryInterface(const GUID& iid) override;
    bool Value(const std::wstring& name) override;
    void Attach(ConditionTestSwitch* leaf) override;
    void Detach(ConditionTestSwitch* leaf) override;
    void CountRecompute(const std::wstring& name) override;
    int Error(const std::wstring& name) override;

    // Makes GetState(…, true) of the leaves of `name` fail with `status`.
    void SetError(const std::wstring& name, int status);
    // Sets the switch and lets every leaf following it catch up, on the
    // calling thread. Returns the last leaf notification's status (0 if none).
    int Set(const std::wstring& name, bool value);
    // GetState(…, true) calls received by leaves following `name`.
    int Recomputes(const std::wstring& name);
    size_t AttachedLeaves();

private:
    std::mutex valueMutex_;
    std::map<std::wstring, bool> values_;
    std::map<std::wstring, int> recomputes_;
    std::map<std::wstring, int> errors_;
    std::shared_mutex leavesMutex_;  // shared while delivering, exclusive to change the list
    std::vector<ConditionTestSwitch*> leaves_;
};

}  // namespace condition_testing

namespace Product::Integration::ConditionManager {
template <>
struct DependencyTraits<condition_testing::ISwitchBoard> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = condition_testing::SwitchBoard::kName;
    static const GUID& Iid() { return condition_testing::ISwitchBoard::iid; }
};
}  // namespace Product::Integration::ConditionManager

namespace condition_testing {

// "test.Switch": follows the switch "data"."name" of the injected board.
// "data"."failWith" (optional) makes Init fail with that status.
class ConditionTestSwitch final : public ConditionBaseWithDepends<ConditionBase, ISwitchBoard> {
public:
    static constexpr const wchar_t* kType = L"test.Switch";

    ConditionTestSwitch() { ++live; }
    ~ConditionTestSwitch() override;

    int Init(const InitData& data) override;
    void Uninit() override;
    int GetState(bool* state, bool recompute) override;

    // Re-reads the switch; notifies when the value changed.
    int Apply();
    const std::wstring& name() const { return name_; }

    static std::atomic<int> live;     // objects in existence
    static std::atomic<int> uninits;  // Uninit calls

private:
    std::mutex lock_;
    std::wstring name_;
    bool state_ = false;
    bool attached_ = false;
};

// "test.NeedsUserManager": declares the host's user manager; its Init fails
// with 5002 when it was not injected.
class ConditionNeedsUserManager final
    : public ConditionBaseWithDepends<ConditionBase, Product::UserManager::IUserManager> {
public:
    static constexpr const wchar_t* kType = L"test.NeedsUserManager";
    int Init(const InitData& data) override;
    int GetState(bool* state, bool) override;
};

// The module's manager plus the test types, and "test.NoFactory", an entry
// without a factory function.
class TestManager final : public Manager {
protected:
    int32_t InitFactory() override;
};

// Records notifications; answers each with `status`. Any thread.
class Recorder final : public IConditionEvent {
public:
    struct Notification {
        bool state;
        size_t id;
    };
    explicit Recorder(int status = 0) : status_(status) {}

    int OnStateChanged(bool state, size_t conditionId) override;
    std::vector<Notification> Notifications() const;
    std::vector<bool> States() const;
    size_t Count() const;
    // Waits (real time) until at least `count` notifications arrived.
    bool WaitForCount(size_t count, std::chrono::milliseconds patience = kPatience) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Notification> notifications_;
    int status_;
};

// A fake user manager to register in the host.
class FakeUserManager final : public Product::UserManager::IUserManager {
public:
    void* QueryInterface(const GUID& iid) override;
};

// Host, services and an initialised manager. Trees built with it must be
// destroyed before it.
class Bench {
public:
    // With `manualClock` the host's queues follow a hand-driven clock.
    explicit Bench(bool manualClock = true, bool initManager = true);
    ~Bench();

    // Builds a tree from JSON text through the manager.
    ConditionPtr Create(const std::string& json, int* error = nullptr, size_t id = 0);
    // Waits until the host's queues have run everything that is due.
    void Settle();

    host::ReferenceHost host;
    host::NetworkProviderStandIn provider;
    host::AgentClientNotifications agentClient{true};
    SwitchBoard board;
    TestManager manager;
};

// The state of `condition` (cached or recomputed); fails the test on error.
bool StateOf(ICondition& condition, bool recompute = false);

}  // namespace condition_testing
