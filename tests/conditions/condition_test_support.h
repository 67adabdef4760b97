#pragma once
// Test bench for the condition engine: a reference host with the services
// the manager needs (network provider stand-in, agent client notifications,
// and the host's own user and computer managers),
// a manager that also knows two test-only condition types, a switch board
// that drives the test leaves, and a recorder of notifications.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/value.h>

#include "conditions/condition_base.h"
#include "conditions/dependencies.h"
#include "conditions/manager.h"
#include "host/agent_client_notifications.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "model/json_composed_serializer.h"
#include "qv/user_manager.h"
#include "support/module_under_test.h"

namespace condition_testing {

using namespace Product::Integration::ConditionManager;

using testing_support::LogCapture;
using testing_support::ParseJson;

// Condition JSON written as text: a test switch, an AND/OR over children, a NOT.
inline std::string Switch(const std::string& name) {
    return R"({"type":"test.Switch","data":{"name":")" + name + "\"}}";
}
inline std::string Combine(const std::string& type, const std::vector<std::string>& children) {
    std::string json = R"({"type":")" + type + R"(","data":{"conditions":[)";
    for (size_t i = 0; i < children.size(); ++i) json += (i ? "," : "") + children[i];
    return json + "]}}";
}
inline std::string Not(const std::string& child) {
    return R"({"type":"boolean.NOT","data":{"condition":)" + child + "}}";
}

class ConditionTestSwitch;

// Named boolean switches that test leaves ("test.Switch") follow. A host
// service, so that the leaves receive it through the manager's injection.
// Set may be called from several threads at once; each leaf re-reads the
// switch under its own lock, so it ends on the last value set.
class SwitchBoard final : public IQvBaseInterface {
public:
    static constexpr GUID iid = qv::MakeGuid(0x0D7A31E6, 0x4F2B, 0x4C18, 0x8E57, 0xA9C3F01B6D24);
    static constexpr const wchar_t* kName = L"Test.SwitchBoard";

    void* QueryInterface(const GUID& id) override {
        return qv::GuidEquals(id, IQvBaseInterface::iid) || qv::GuidEquals(id, iid) ? this : nullptr;
    }
    bool Value(const std::wstring& name) {
        std::lock_guard l(valueMutex_);
        return values_[name];
    }
    // Status that recomputing a leaf of `name` fails with (0: none).
    int Error(const std::wstring& name) {
        std::lock_guard l(valueMutex_);
        return errors_[name];
    }
    void SetError(const std::wstring& name, int status) {
        std::lock_guard l(valueMutex_);
        errors_[name] = status;
    }
    // GetState(…, true) calls received by leaves following `name`.
    int Recomputes(const std::wstring& name) {
        std::lock_guard l(valueMutex_);
        return recomputes_[name];
    }
    void CountRecompute(const std::wstring& name) {
        std::lock_guard l(valueMutex_);
        ++recomputes_[name];
    }
    // Sets the switch and lets every leaf following it catch up, on the
    // calling thread. Returns the last leaf notification's status (0 if none).
    inline int Set(const std::wstring& name, bool value);

    void Attach(ConditionTestSwitch* leaf) {
        std::unique_lock lock(leavesMutex_);
        leaves_.push_back(leaf);
    }
    void Detach(ConditionTestSwitch* leaf) {
        std::unique_lock lock(leavesMutex_);
        leaves_.erase(std::remove(leaves_.begin(), leaves_.end(), leaf), leaves_.end());
    }
    size_t AttachedLeaves() {
        std::shared_lock lock(leavesMutex_);
        return leaves_.size();
    }

private:
    std::mutex valueMutex_;
    std::map<std::wstring, bool> values_;
    std::map<std::wstring, int> recomputes_, errors_;
    std::shared_mutex leavesMutex_;  // shared while delivering, exclusive to change the list
    std::vector<ConditionTestSwitch*> leaves_;
};

}  // namespace condition_testing

namespace Product::Integration::ConditionManager {
template <>
struct DependencyTraits<condition_testing::SwitchBoard> {
    static constexpr DependencySource source = DependencySource::kHost;
    static constexpr const wchar_t* name = condition_testing::SwitchBoard::kName;
    static const GUID& Iid() { return condition_testing::SwitchBoard::iid; }
};
}  // namespace Product::Integration::ConditionManager

namespace condition_testing {

// "test.Switch": follows the switch "data"."name" of the injected board.
// "data"."failWith" (optional) makes Init fail with that status.
class ConditionTestSwitch final : public ConditionBaseWithDepends<ConditionBase, SwitchBoard> {
public:
    static constexpr const wchar_t* kType = L"test.Switch";
    static inline std::atomic<int> live{0};     // objects in existence
    static inline std::atomic<int> uninits{0};  // Uninit calls

    ConditionTestSwitch() { ++live; }
    // No Uninit here: the tests rely on the factory's deleter calling it.
    ~ConditionTestSwitch() override { --live; }

    int32_t Init(const InitData& data) override {
        if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
        SwitchBoard* board = Dependency<SwitchBoard>();
        if (!board) return qv::status::kDependencyNotFound;
        const Json::Value& parameters = DataOf(data.json);
        if (!qv::JsonComposedSerializer::Load(parameters, L"name", name_)) return qv::status::kInvalidParameter;
        if (parameters.isMember("failWith")) return parameters["failWith"].asInt();
        {
            std::lock_guard lock(lock_);
            state_ = board->Value(name_);
        }
        board->Attach(this);
        attached_ = true;
        return 0;
    }
    void Uninit() override {
        if (attached_) Dependency<SwitchBoard>()->Detach(this);
        attached_ = false;
        ++uninits;
    }
    int32_t GetState(bool* state, bool recompute) override {
        std::lock_guard lock(lock_);
        if (recompute) {
            SwitchBoard* board = Dependency<SwitchBoard>();
            board->CountRecompute(name_);
            if (const int32_t status = board->Error(name_); status != 0) return status;
            state_ = board->Value(name_);
        }
        *state = state_;
        return 0;
    }
    // Re-reads the switch; notifies when the value changed.
    int Apply() {
        std::lock_guard lock(lock_);
        const bool value = Dependency<SwitchBoard>()->Value(name_);
        if (value == state_) return 0;
        state_ = value;
        return NotifyChanged(value);
    }
    const std::wstring& name() const { return name_; }

private:
    std::mutex lock_;
    std::wstring name_;
    bool state_ = false;
    bool attached_ = false;
};

int SwitchBoard::Set(const std::wstring& name, bool value) {
    {
        std::lock_guard l(valueMutex_);
        values_[name] = value;
    }
    std::shared_lock lock(leavesMutex_);
    int32_t status = 0;
    for (ConditionTestSwitch* leaf : leaves_)
        if (leaf->name() == name) status = leaf->Apply();
    return status;
}

// "test.NeedsUserManager": declares the host's user manager; its Init fails
// with 5002 when it was not injected.
class ConditionNeedsUserManager final
    : public ConditionBaseWithDepends<ConditionBase, Product::UserManager::IUserManager> {
public:
    static constexpr const wchar_t* kType = L"test.NeedsUserManager";
    int32_t Init(const InitData& data) override {
        if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
        return Dependency<Product::UserManager::IUserManager>() ? 0 : qv::status::kDependencyNotFound;
    }
    int32_t GetState(bool* state, bool) override { return *state = true, 0; }
};

// The module's manager plus the test types, and "test.NoFactory", an entry
// without a factory function.
class TestManager final : public Manager {
protected:
    int32_t InitFactory() override {
        const int32_t status = Manager::InitFactory();
        AddToFactory<ConditionTestSwitch>();
        AddToFactory<ConditionNeedsUserManager>();
        AddFactoryEntry(L"test.NoFactory", FactoryEntry{});
        return status;
    }
};

// Records notifications; answers each with `status`. Any thread.
class Recorder final : public IConditionEvent {
public:
    struct Notification {
        bool state;
        size_t id;
    };
    explicit Recorder(int32_t status = 0) : status_(status) {}

    int32_t OnStateChanged(bool state, size_t conditionId) override {
        {
            std::lock_guard lock(mutex_);
            notifications_.push_back({state, conditionId});
        }
        changed_.notify_all();
        return status_;
    }
    std::vector<Notification> Notifications() const {
        std::lock_guard lock(mutex_);
        return notifications_;
    }
    std::vector<bool> States() const {
        std::vector<bool> states;
        for (const Notification& n : Notifications()) states.push_back(n.state);
        return states;
    }
    size_t Count() const { return Notifications().size(); }
    // Waits (real time) until at least `count` notifications arrived.
    bool WaitForCount(size_t count, std::chrono::milliseconds patience = std::chrono::seconds(10)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return notifications_.size() >= count; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Notification> notifications_;
    int status_;
};

// Host, services and (unless told not to) an initialised manager. Trees built
// with it must be destroyed before it. With `manualClock` the host's queues
// follow a hand-driven clock.
class Bench {
public:
    explicit Bench(bool manualClock = true, bool initManager = true) : host(manualClock) {
        host.components().Register(host::NetworkProviderStandIn::kName, &provider);
        host.components().Register(host::AgentClientNotifications::kName, &agentClient);
        host.components().Register(SwitchBoard::kName, &board);
        if (initManager) {
            EXPECT_EQ(manager.Init(host.main()), 0);
        }
    }
    ~Bench() { EXPECT_EQ(manager.Uninit(), 0); }

    // Builds a tree from JSON text through the manager.
    ConditionPtr Create(const std::string& json, int32_t* error = nullptr, size_t id = 0) {
        int32_t ignored = 0;
        return manager.CreateCondition(ParseJson(json), error ? error : &ignored, id);
    }
    // Waits until the host's queues have run everything that is due.
    void Settle() { EXPECT_TRUE(host.queues().WaitIdle()); }

    host::ReferenceHost host;
    host::NetworkProviderStandIn provider;
    host::AgentClientNotifications agentClient{true};
    SwitchBoard board;
    TestManager manager;
};

// The state of `condition` (cached or recomputed); fails the test on error.
inline bool StateOf(ICondition& condition, bool recompute = false) {
    bool state = false;
    EXPECT_EQ(condition.GetState(&state, recompute), 0);
    return state;
}

}  // namespace condition_testing
