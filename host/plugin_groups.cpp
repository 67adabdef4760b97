#include "host/plugin_groups.h"

#include <algorithm>

#include "qv/status.h"

namespace host {

void PluginGroups::AddMember(const std::wstring& group, IQvBaseInterface* member) {
    std::lock_guard lock(mutex_);
    std::vector<IQvBaseInterface*>& members = groups_[group].members;
    if (member && std::find(members.begin(), members.end(), member) == members.end()) members.push_back(member);
}

int PluginGroups::References(const std::wstring& group) const {
    std::lock_guard lock(mutex_);
    auto it = groups_.find(group);
    if (it == groups_.end()) return 0;
    size_t n = 0;
    for (size_t taken : it->second.taken) n += taken;
    return static_cast<int>(n);
}

int PluginGroups::TotalReferences() const {
    std::lock_guard lock(mutex_);
    size_t n = 0;
    for (const auto& [name, group] : groups_)
        for (size_t taken : group.taken) n += taken;
    return static_cast<int>(n);
}

void* PluginGroups::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IGroupsManager::iid))
        return static_cast<IGroupsManager*>(this);
    return nullptr;
}

int32_t PluginGroups::GetGroupMembers(const wchar_t* group, const GUID& wanted, std::vector<void*>& members) {
    members.clear();
    if (!group) return qv::status::kInvalidParameter;
    std::lock_guard lock(mutex_);
    auto it = groups_.find(group);
    if (it == groups_.end()) return qv::status::kNotFound;
    for (IQvBaseInterface* member : it->second.members)
        if (void* found = member->QueryInterface(wanted)) members.push_back(found);
    it->second.taken.push_back(members.size());
    return 0;
}

void PluginGroups::ReleaseGroupMembers(const wchar_t* group) {
    if (!group) return;
    std::lock_guard lock(mutex_);
    if (auto it = groups_.find(group); it != groups_.end() && !it->second.taken.empty()) it->second.taken.pop_back();
}

}  // namespace host
