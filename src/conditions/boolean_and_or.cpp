#include "conditions/boolean_and_or.h"

#include "model/json_composed_serializer.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kAggregateInit = L"Product::Integration::ConditionManager::ConditionAggregate::Init";
constexpr const wchar_t* kCreateChildren =
    L"Product::Integration::ConditionManager::ConditionAggregate::CreateChildren";
constexpr const wchar_t* kGetState = L"Product::Integration::ConditionManager::ConditionBooleanAndOr::GetState";
constexpr const wchar_t* kOnStateChanged =
    L"Product::Integration::ConditionManager::ConditionBooleanAndOr::OnStateChanged";
constexpr const wchar_t* kUpdateState = L"Product::Integration::ConditionManager::ConditionBooleanAndOr::UpdateState";
}  // namespace

int32_t ConditionAggregate::Accept(IConditionVisitor& visitor) {
    visitor.Visit(*this);
    for (ConditionPtr& child : children_)
        if (const int32_t status = child->Accept(visitor); status != 0) return status;
    return 0;
}

int32_t ConditionAggregate::CreateChildren(const Json::Value& json, IManager* manager) {
    Json::Value conditions;
    if (!qv::JsonComposedSerializer::Load(DataOf(json), L"conditions", conditions) || !conditions.isArray() ||
        conditions.empty())
        return qv::status::kInvalidParameter;
    children_.reserve(conditions.size());
    int32_t error = 0;
    for (Json::ArrayIndex i = 0; i < conditions.size(); ++i) {
        ConditionPtr child = manager->CreateCondition(conditions[i], &error, i);
        if (!child) {
            logging::Log(logging::kError, kCreateChildren, L"Failed to create child condition");
            DestroyChildren();
            return error;
        }
        children_.push_back(std::move(child));
    }
    for (ConditionPtr& child : children_) {
        if (const int32_t status = child->Subscribe(this); status != 0) {
            logging::Log(logging::kError, kCreateChildren, L"Failed to register for child events");
            DestroyChildren();
            return status;
        }
    }
    return 0;
}

void ConditionAggregate::UnsubscribeFromChildren() {
    // A child refuses only when the subscription never happened (a failed
    // build); either way it no longer notifies this aggregate.
    for (ConditionPtr& child : children_) static_cast<void>(child->Unsubscribe(this));
}

void ConditionAggregate::DestroyChildren() {
    UnsubscribeFromChildren();
    children_.clear();
}

ConditionBooleanAndOr::~ConditionBooleanAndOr() { ConditionBooleanAndOr::Uninit(); }

int32_t ConditionBooleanAndOr::Init(const InitData& data) {
    IManager* manager = Dependency<IManager>();
    if (!manager) {
        logging::Log(logging::kError, kAggregateInit, L"cannot found manager");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    if (const int32_t status = OpenQueue(queue(), kQueueName, kAggregateInit); status != 0) return status;
    // The children are complete before the first subscription, so a child
    // notification that arrives before the count below only recomputes
    // early (for nobody: the owner subscribes after Init).
    if (const int32_t status = CreateChildren(data.json, manager); status != 0) return status;
    os::RecursiveMutexLock lock(lock_);
    threshold_ = requireAll_ == 1 ? children_.size() : 1;
    trueCount_ = 0;
    for (ConditionPtr& child : children_) {
        bool value = false;
        if (child->GetState(&value, true) == 0 && value) ++trueCount_;
    }
    state_ = trueCount_ >= threshold_;
    return 0;
}

void ConditionBooleanAndOr::Uninit() {
    UnsubscribeFromChildren();
    queue().Close();
    queue().SetFactory(nullptr);
    std::vector<ConditionPtr> children;
    {
        os::RecursiveMutexLock lock(lock_);
        children.swap(children_);
    }
    // Destroyed outside the critical section: each child waits for its own
    // work to end.
    children.clear();
}

int32_t ConditionBooleanAndOr::GetState(bool* state, bool recompute) {
    logging::CallTrace trace(kGetState);
    if (!state) return qv::status::kInvalidParameter;
    os::RecursiveMutexLock lock(lock_);
    if (recompute) {
        size_t count = 0;
        for (ConditionPtr& child : children_) {
            bool value = false;
            if (const int32_t status = child->GetState(&value, true); status != 0) return status;
            if (value) ++count;
        }
        trueCount_ = count;
        state_ = trueCount_ >= threshold_;
    }
    *state = state_;
    return 0;
}

int32_t ConditionBooleanAndOr::OnStateChanged(bool, size_t) {
    const uint64_t generation = ++generation_;
    // A recomputation that cannot be queued would lose the change: the child
    // hears of it, and the log says so.
    const int32_t status = queue().Post([this, generation] { UpdateState(generation); }, 0);
    if (status != 0) logging::Log(logging::kWarning, kOnStateChanged, L"cannot schedule an update [%d]", status);
    return status;
}

void ConditionBooleanAndOr::UpdateState(uint64_t expectedGeneration) {
    logging::CallTrace trace(kUpdateState);
    if (expectedGeneration != generation_.load()) {
        logging::Log(logging::kDetail, kUpdateState, L"another update is scheduled");
        return;
    }
    os::RecursiveMutexLock lock(lock_);
    const bool before = state_;
    bool now = false;
    // The parent's status has nobody to go to on the queue's thread.
    if (GetState(&now, true) == 0 && now != before) static_cast<void>(NotifyChanged(now));
}

}  // namespace Product::Integration::ConditionManager
