#include "condition_test_support.h"

#include <algorithm>
#include <memory>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "model/json_composed_serializer.h"

namespace condition_testing {

Json::Value ParseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        ADD_FAILURE() << "bad test JSON: " << errors << "\n" << text;
    return value;
}

// --- SwitchBoard -----------------------------------------------------------

void* SwitchBoard::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, ISwitchBoard::iid))
        return static_cast<ISwitchBoard*>(this);
    return nullptr;
}

bool SwitchBoard::Value(const std::wstring& name) {
    std::lock_guard lock(valueMutex_);
    return values_[name];
}

void SwitchBoard::Attach(ConditionTestSwitch* leaf) {
    std::unique_lock lock(leavesMutex_);
    leaves_.push_back(leaf);
}

void SwitchBoard::Detach(ConditionTestSwitch* leaf) {
    std::unique_lock lock(leavesMutex_);
    leaves_.erase(std::remove(leaves_.begin(), leaves_.end(), leaf), leaves_.end());
}

void SwitchBoard::CountRecompute(const std::wstring& name) {
    std::lock_guard lock(valueMutex_);
    ++recomputes_[name];
}

int SwitchBoard::Error(const std::wstring& name) {
    std::lock_guard lock(valueMutex_);
    return errors_[name];
}

void SwitchBoard::SetError(const std::wstring& name, int status) {
    std::lock_guard lock(valueMutex_);
    errors_[name] = status;
}

int SwitchBoard::Set(const std::wstring& name, bool value) {
    {
        std::lock_guard lock(valueMutex_);
        values_[name] = value;
    }
    std::shared_lock lock(leavesMutex_);
    int status = 0;
    for (ConditionTestSwitch* leaf : leaves_)
        if (leaf->name() == name) status = leaf->Apply();
    return status;
}

int SwitchBoard::Recomputes(const std::wstring& name) {
    std::lock_guard lock(valueMutex_);
    return recomputes_[name];
}

size_t SwitchBoard::AttachedLeaves() {
    std::shared_lock lock(leavesMutex_);
    return leaves_.size();
}

// --- Test condition types --------------------------------------------------

std::atomic<int> ConditionTestSwitch::live{0};
std::atomic<int> ConditionTestSwitch::uninits{0};

// No Uninit here: the tests rely on the factory's deleter calling it.
ConditionTestSwitch::~ConditionTestSwitch() { --live; }

int ConditionTestSwitch::Init(const InitData& data) {
    ConditionBase::Init(data);
    ISwitchBoard* board = Dependency<ISwitchBoard>();
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

void ConditionTestSwitch::Uninit() {
    if (attached_) {
        Dependency<ISwitchBoard>()->Detach(this);
        attached_ = false;
    }
    ++uninits;
}

int ConditionTestSwitch::GetState(bool* state, bool recompute) {
    std::lock_guard lock(lock_);
    if (recompute) {
        ISwitchBoard* board = Dependency<ISwitchBoard>();
        board->CountRecompute(name_);
        if (const int status = board->Error(name_); status != 0) return status;
        state_ = board->Value(name_);
    }
    *state = state_;
    return 0;
}

int ConditionTestSwitch::Apply() {
    std::lock_guard lock(lock_);
    const bool value = Dependency<ISwitchBoard>()->Value(name_);
    if (value == state_) return 0;
    state_ = value;
    return NotifyChanged(value);
}

int ConditionNeedsUserManager::Init(const InitData& data) {
    ConditionBase::Init(data);
    return Dependency<Product::UserManager::IUserManager>() ? 0 : qv::status::kDependencyNotFound;
}

int ConditionNeedsUserManager::GetState(bool* state, bool) {
    *state = true;
    return 0;
}

int32_t TestManager::InitFactory() {
    const int32_t status = Manager::InitFactory();
    AddToFactory<ConditionTestSwitch>();
    AddToFactory<ConditionNeedsUserManager>();
    AddFactoryEntry(L"test.NoFactory", FactoryEntry{});
    return status;
}

// --- Recorder, fakes, bench ------------------------------------------------

int Recorder::OnStateChanged(bool state, size_t conditionId) {
    {
        std::lock_guard lock(mutex_);
        notifications_.push_back({state, conditionId});
    }
    changed_.notify_all();
    return status_;
}

std::vector<Recorder::Notification> Recorder::Notifications() const {
    std::lock_guard lock(mutex_);
    return notifications_;
}

std::vector<bool> Recorder::States() const {
    std::vector<bool> states;
    for (const Notification& n : Notifications()) states.push_back(n.state);
    return states;
}

size_t Recorder::Count() const {
    std::lock_guard lock(mutex_);
    return notifications_.size();
}

bool Recorder::WaitForCount(size_t count, std::chrono::milliseconds patience) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return notifications_.size() >= count; });
}

void* FakeUserManager::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, IUserManager::iid))
        return static_cast<IUserManager*>(this);
    return nullptr;
}

Bench::Bench(bool manualClock, bool initManager) : host(manualClock) {
    host.components().Register(host::NetworkProviderStandIn::kName, &provider);
    host.components().Register(host::AgentClientNotifications::kName, &agentClient);
    host.components().Register(SwitchBoard::kName, &board);
    if (initManager) {
        const int32_t status = manager.Init(host.main());
        EXPECT_EQ(status, 0);
    }
}

Bench::~Bench() { manager.Uninit(); }

ConditionPtr Bench::Create(const std::string& json, int* error, size_t id) {
    int ignored = 0;
    return manager.CreateCondition(ParseJson(json), error ? error : &ignored, id);
}

void Bench::Settle() { EXPECT_TRUE(host.queues().WaitIdle()); }

bool StateOf(ICondition& condition, bool recompute) {
    bool state = false;
    EXPECT_EQ(condition.GetState(&state, recompute), 0);
    return state;
}

}  // namespace condition_testing
