#include "conditions/boolean_not.h"

#include "model/json_composed_serializer.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionBooleanNot::Init";
constexpr const wchar_t* kCreateChild = L"Product::Integration::ConditionManager::ConditionBooleanNot::CreateChild";
}  // namespace

ConditionBooleanNot::~ConditionBooleanNot() { ReleaseChild(); }

int32_t ConditionBooleanNot::Init(const InitData& data) {
    IManager* manager = Dependency<IManager>();
    if (!manager) {
        logging::Log(logging::kError, kInit, L"cannot found manager");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    if (const int32_t status = CreateChild(data.json, manager); status != 0) return status;
    // The child's status is not looked at: a child that cannot answer yet
    // leaves `value` false, and the negation starts true.
    bool value = false;
    static_cast<void>(child_->GetState(&value, true));
    state_ = !value;
    return 0;
}

int32_t ConditionBooleanNot::CreateChild(const Json::Value& json, IManager* manager) {
    Json::Value condition;
    if (!qv::JsonComposedSerializer::Load(DataOf(json), L"condition", condition)) return qv::status::kInvalidParameter;
    int32_t error = 0;
    ConditionPtr child = manager->CreateCondition(condition, &error, 0);
    if (!child) {
        logging::Log(logging::kError, kCreateChild, L"Failed to create child condition");
        return error;
    }
    ReleaseChild();
    child_ = std::move(child);
    if (const int32_t status = child_->Subscribe(this); status != 0) {
        logging::Log(logging::kError, kCreateChild, L"Failed to register for child events");
        return status;
    }
    return 0;
}

void ConditionBooleanNot::ReleaseChild() {
    if (!child_) return;
    // Refused only when the subscription never happened (a failed build).
    static_cast<void>(child_->Unsubscribe(this));
    child_.reset();
}

int32_t ConditionBooleanNot::GetState(bool* state, bool recompute) {
    if (!state) return qv::status::kInvalidParameter;
    int32_t status = 0;
    if (recompute && child_) {
        bool value = false;
        status = child_->GetState(&value, true);
        if (status == 0) state_ = !value;
    }
    *state = state_;
    return status;
}

int32_t ConditionBooleanNot::Accept(IConditionVisitor& visitor) {
    visitor.Visit(*this);
    return child_ ? child_->Accept(visitor) : 0;
}

int32_t ConditionBooleanNot::OnStateChanged(bool state, size_t) {
    state_ = !state;
    return NotifyChanged(!state);
}

}  // namespace Product::Integration::ConditionManager
