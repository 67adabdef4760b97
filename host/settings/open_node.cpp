#include "host/settings/open_node.h"

#include <utility>
#include <variant>

#include "host/settings/guarded.h"
#include "host/settings/value_entry.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace host {

namespace status = qv::status;
using settings::Guarded;
using settings::Value;

int32_t SettingsStore::OpenNode::GetString(const wchar_t* name, std::wstring& value) {
    return Guarded([&] {
        const Value* found = nullptr;
        if (const int32_t result = Find(name, found)) return result;
        const auto* text = std::get_if<std::wstring>(found);
        if (!text) return status::kInvalidDataType;
        value = *text;
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::SetString(const wchar_t* name, const std::wstring& value) {
    return Guarded([&] {
        if (!settings::IsText(value)) return status::kInvalidParameter;
        return Set(name, Value(value));
    });
}

int32_t SettingsStore::OpenNode::GetBool(const wchar_t* name, bool& value) {
    return Guarded([&] {
        const Value* found = nullptr;
        if (const int32_t result = Find(name, found)) return result;
        const auto* flag = std::get_if<bool>(found);
        if (!flag) return status::kInvalidDataType;
        value = *flag;
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::SetBool(const wchar_t* name, bool value) {
    return Guarded([&] { return Set(name, Value(value)); });
}

int32_t SettingsStore::OpenNode::GetJson(const wchar_t* name, Json::Value& value) {
    return Guarded([&] {
        const Value* found = nullptr;
        if (const int32_t result = Find(name, found)) return result;
        if (const auto* text = std::get_if<std::wstring>(found))
            value = Json::Value(os::WideToUtf8Lossy(*text));
        else if (const auto* flag = std::get_if<bool>(found))
            value = Json::Value(*flag);
        else
            value = settings::ParseStored(std::get<settings::JsonEntry>(*found).compact());
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::SetJson(const wchar_t* name, const Json::Value& value) {
    return Guarded([&] {
        // A value mostly replaces one of about its size: its text is written
        // at once into room for that much.
        const Value* old = nullptr;
        const auto* oldJson = settings::ValidValueName(name) && Find(name, old) == status::kSuccess
                                  ? std::get_if<settings::JsonEntry>(old)
                                  : nullptr;
        auto json = settings::MakeJsonEntry(value, oldJson ? oldJson->entry.size() + oldJson->entry.size() / 8 : 0);
        if (!json) return status::kInvalidParameter;
        return Set(name, Value(std::move(*json)));
    });
}

int32_t SettingsStore::OpenNode::GetChildNames(std::vector<std::wstring>& names) {
    return Guarded([&] {
        std::vector<std::wstring> listed;
        if (base_) {
            for (const auto& [name, child] : base_->children)
                if (!changes_.removed.contains(name)) listed.push_back(name);
        }
        names = std::move(listed);
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::RemoveChild(const wchar_t* name) {
    return Guarded([&] {
        if (!writable_) return status::kAccessDenied;
        if (!name || !settings::ValidChildName(name)) return status::kInvalidParameter;
        const std::wstring child(name);
        if (!base_ || !base_->children.contains(child) || changes_.removed.contains(child)) return status::kNotFound;
        changes_.removed.insert(child);
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::Commit() {
    return Guarded([&] {
        if (!writable_) return status::kAccessDenied;
        settings::NodePtr committed;
        const int32_t result = store_.Apply(segments_, changes_, committed);
        if (result != status::kSuccess) return result;
        base_ = std::move(committed);
        changes_ = settings::Changes();
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenNode::Find(const wchar_t* name, const Value*& found) const {
    if (!settings::ValidValueName(name)) return status::kInvalidParameter;
    const std::wstring key(name);
    if (auto it = changes_.values.find(key); it != changes_.values.end()) {
        found = &it->second->value;
        return status::kSuccess;
    }
    if (base_) {
        if (auto it = base_->values.find(key); it != base_->values.end()) {
            found = &it->second->value;
            return status::kSuccess;
        }
    }
    return status::kNotFound;
}

int32_t SettingsStore::OpenNode::Set(const wchar_t* name, Value value) {
    if (!writable_) return status::kAccessDenied;
    if (!settings::ValidValueName(name)) return status::kInvalidParameter;
    changes_.values.insert_or_assign(std::wstring(name), settings::MakeValue(std::move(value)));
    return status::kSuccess;
}

}  // namespace host
