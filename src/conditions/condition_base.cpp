#include "conditions/condition_base.h"

#include <string_view>

#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kNotifyChanged = L"Product::Integration::ConditionManager::ConditionBase::NotifyChanged";
}

int32_t ConditionBase::Subscribe(IConditionEvent* subscriber) { return subscribers_.Add(subscriber); }

int32_t ConditionBase::Unsubscribe(IConditionEvent* subscriber) { return subscribers_.Remove(subscriber); }

int32_t ConditionBase::Accept(IConditionVisitor& visitor) {
    visitor.Visit(*this);
    return 0;
}

void* ConditionBase::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IConditionDiagnostics::iid)) return static_cast<IConditionDiagnostics*>(this);
    return nullptr;
}

int32_t ConditionBase::Init(const InitData& data) {
    id_ = data.id;
    type_.clear();
    if (data.json.isObject()) {
        constexpr std::string_view kTypeMember = "type";
        const Json::Value* type = data.json.find(kTypeMember.data(), kTypeMember.data() + kTypeMember.size());
        if (type && type->isString()) type_ = os::Utf8ToWideLossy(type->asString());
    }
    return 0;
}

int32_t ConditionBase::NotifyChanged(bool state) {
    logging::Log(logging::kTrace, kNotifyChanged, L"Condition [%s] notify [%s]", type_.c_str(),
                 state ? L"TRUE" : L"FALSE");
    return notifier_(state, id_);
}

const Json::Value& ConditionBase::DataOf(const Json::Value& json) {
    static const Json::Value none;
    const Json::Value* data = qv::JsonComposedSerializer::Find(json, L"data");
    return data ? *data : none;
}

}  // namespace Product::Integration::ConditionManager
