#pragma once
// Reference plug-in groups ("Framework.Manager"): named, ordered groups of
// member objects (not owned). Each GetGroupMembers takes a reference on every
// member it hands out and each ReleaseGroupMembers gives back the references
// of one earlier GetGroupMembers of the same group (the latest one still
// held), so that a test or the host can check that everything taken was given
// back. Thread-safe; members are asked for interfaces under the lock, which
// their QueryInterface must not need.
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "qv/service_control.h"

namespace host {

class PluginGroups final : public Framework::IGroupsManager {
public:
    static constexpr const wchar_t* kName = IGroupsManager::kPluginName;

    // Appends `member` to `group`, creating the group; a member already in
    // the group or null is ignored.
    void AddMember(const std::wstring& group, IQvBaseInterface* member);

    // Member references handed out for `group` and not yet given back.
    int References(const std::wstring& group) const;
    // Sum of References over all groups.
    int TotalReferences() const;

    void* QueryInterface(const GUID& iid) override;
    // kInvalidParameter for a null group name.
    int32_t GetGroupMembers(const wchar_t* group, const GUID& iid, std::vector<void*>& members) override;
    // Does nothing when no GetGroupMembers of `group` is outstanding.
    void ReleaseGroupMembers(const wchar_t* group) override;

private:
    struct Group {
        std::vector<IQvBaseInterface*> members;
        std::vector<size_t> taken;  // references of each outstanding GetGroupMembers
    };
    mutable std::mutex mutex_;
    std::map<std::wstring, Group> groups_;
};

}  // namespace host
