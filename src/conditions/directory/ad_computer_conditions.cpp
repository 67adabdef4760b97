#include "conditions/directory/ad_computer_conditions.h"

#include "conditions/directory/active_directory.h"
#include "conditions/guarded_callback.h"
#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {

constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionADComputerGroupsBase::Init";
constexpr const wchar_t* kGroupCompute =
    L"Product::Integration::ConditionManager::ConditionADComputerGroup::ComputeCurrentState";
constexpr const wchar_t* kGroupsChanged =
    L"Product::Integration::ConditionManager::ConditionADComputerGroup::OnComputerGroupsChanged";
constexpr const wchar_t* kOuCompute =
    L"Product::Integration::ConditionManager::ConditionADComputerGroupOU::ComputeCurrentState";
constexpr const wchar_t* kOuChanged =
    L"Product::Integration::ConditionManager::ConditionADComputerGroupOU::OnComputerOrganisationalUnitsChanged";

}  // namespace

ConditionADComputerGroupsBase::~ConditionADComputerGroupsBase() { ConditionADComputerGroupsBase::Uninit(); }

int32_t ConditionADComputerGroupsBase::Init(const InitData& data) {
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    if (!manager()) {
        logging::Log(logging::kError, kInit, L"computer groups manager plugin dependency not found!");
        return qv::status::kDependencyNotFound;
    }
    if (const int32_t status = LoadConditionData(data.json); status != 0) {
        logging::Log(logging::kError, kInit, L"Could not load data for condition type %s, error = %d.", TypeKeyword(),
                     static_cast<int>(status));
        return status;
    }
    // Registered first: a change from here on is reported, also one made
    // while the current value is being read.
    if (const int32_t status = manager()->RegisterEvents(this); status != 0) {
        logging::Log(logging::kError, kInit, L"register to computer groups manager plugin failed");
        return status;
    }
    registered_ = true;
    ComputeCurrentState(true, false);
    return 0;
}

void ConditionADComputerGroupsBase::Uninit() {
    if (!registered_) return;
    static_cast<void>(manager()->UnregisterEvents(this));  // refused only when not registered
    registered_ = false;
}

int32_t ConditionADComputerGroupsBase::GetState(bool* state, bool) {
    if (!state) return qv::status::kInvalidParameter;
    os::MutexLock lock(mutex_);
    *state = state_;
    return 0;
}

uint64_t ConditionADComputerGroupsBase::ReportsSeen() {
    os::MutexLock lock(mutex_);
    return reports_;
}

void ConditionADComputerGroupsBase::ApplyRead(bool result, uint64_t reportsBefore, bool notify) {
    bool changed = false;
    {
        os::MutexLock lock(mutex_);
        if (reports_ != reportsBefore) return;  // a newer report has decided
        changed = state_ != result;
        state_ = result;
    }
    if (changed && notify) static_cast<void>(NotifyChanged(result));  // the statuses have nobody to go to
}

void ConditionADComputerGroupsBase::ApplyReport(bool result) {
    bool changed = false;
    {
        os::MutexLock lock(mutex_);
        ++reports_;
        changed = state_ != result;
        state_ = result;
    }
    if (changed) static_cast<void>(NotifyChanged(result));  // the statuses have nobody to go to
}

int32_t ConditionADComputerGroupsBase::LoadTarget(const Json::Value& json, const wchar_t* name, std::wstring& out) {
    const Json::Value* data = qv::JsonComposedSerializer::Find(json, L"data");
    if (!data) return qv::status::kInvalidParameter;
    return qv::JsonComposedSerializer::Load(*data, name, out) ? 0 : qv::status::kInvalidParameter;
}

int32_t ConditionADComputerGroup::LoadConditionData(const Json::Value& json) { return LoadTarget(json, L"sid", sid_); }

bool ConditionADComputerGroup::IsMember(const std::vector<ComputerGroup>& groups) const {
    for (const ComputerGroup& group : groups)
        if (qv::ActiveDirectory::EqualIgnoringCase(group.sid, sid_)) return true;
    return false;
}

void ConditionADComputerGroup::ComputeCurrentState(bool reload, bool notify) {
    if (!reload) {
        bool ignored = false;
        static_cast<void>(GetState(&ignored, false));
        return;
    }
    const uint64_t reportsBefore = ReportsSeen();
    std::vector<ComputerGroup> groups;
    if (const int32_t status = manager()->GetComputerGroups(&groups); status != 0) {
        logging::Log(logging::kError, kGroupCompute, L"getting current computer groups failed with err %d",
                     static_cast<int>(status));
        groups.clear();
    }
    ApplyRead(IsMember(groups), reportsBefore, notify);
}

int32_t ConditionADComputerGroup::OnComputerGroupsChanged(const std::vector<ComputerGroup>& groups) {
    return Guarded(kGroupsChanged, [&] {
        logging::CallTrace trace(kGroupsChanged);
        logging::Log(logging::kTrace, kGroupsChanged, L"computer groups have changed");
        for (const ComputerGroup& group : groups)
            logging::Log(logging::kTrace, kGroupsChanged, L"\tnew computer group: dn: %s; sid: %s", group.dn.c_str(),
                         group.sid.c_str());
        ApplyReport(IsMember(groups));
        return 0;
    });
}

int32_t ConditionADComputerGroupOU::LoadConditionData(const Json::Value& json) {
    return LoadTarget(json, L"distinguishedName", ouDn_);
}

bool ConditionADComputerGroupOU::IsBelowTarget(const std::wstring& computerDn, const wchar_t* function) const {
    try {
        return qv::ActiveDirectory::IsComputerPartOfOU(computerDn, ouDn_);
    } catch (const qv::ActiveDirectory::active_directory_exception& e) {
        logging::Log(logging::kError, function, L"%s", e.message().c_str());
    } catch (...) {
        logging::Log(logging::kError, function, L"Unknown exception thrown.");
    }
    return false;
}

void ConditionADComputerGroupOU::ComputeCurrentState(bool reload, bool notify) {
    if (!reload) {
        bool ignored = false;
        static_cast<void>(GetState(&ignored, false));
        return;
    }
    const uint64_t reportsBefore = ReportsSeen();
    std::wstring ou;
    if (const int32_t status = manager()->GetComputerOrganisationalUnit(&ou); status != 0) {
        logging::Log(logging::kError, kOuCompute, L"getting current computer organisational unit failed with err %d",
                     static_cast<int>(status));
        ApplyRead(false, reportsBefore, notify);
        return;
    }
    ApplyRead(IsBelowTarget(ou, kOuCompute), reportsBefore, notify);
}

int32_t ConditionADComputerGroupOU::OnComputerOrganisationalUnitsChanged(const std::wstring& ou) {
    return Guarded(kOuChanged, [&] {
        logging::CallTrace trace(kOuChanged);
        logging::Log(logging::kTrace, kOuChanged, L"computer ou have changed");
        logging::Log(logging::kTrace, kOuChanged, L"\tnew computer ou: %s;", ou.c_str());
        ApplyReport(IsBelowTarget(ou, kOuChanged));
        return 0;
    });
}

Json::Value ConditionADComputerGroup::Observed() {
    std::vector<ComputerGroup> groups;
    if (!manager() || manager()->GetComputerGroups(&groups) != 0) return Json::Value();
    Json::Value observed(Json::objectValue);
    Json::Value& list = observed["groups"] = Json::Value(Json::arrayValue);
    for (const ComputerGroup& group : groups) {
        Json::Value entry(Json::objectValue);
        entry["dn"] = os::WideToUtf8Lossy(group.dn);
        entry["sid"] = os::WideToUtf8Lossy(group.sid);
        entry["matched"] = IsMember({group});
        list.append(entry);
    }
    return observed;
}

Json::Value ConditionADComputerGroupOU::Observed() {
    std::wstring computerDn;
    if (!manager() || manager()->GetComputerOrganisationalUnit(&computerDn) != 0) return Json::Value();
    Json::Value observed(Json::objectValue);
    observed["computerDn"] = os::WideToUtf8Lossy(computerDn);
    observed["matched"] = IsBelowTarget(computerDn, kOuCompute);
    return observed;
}

}  // namespace Product::Integration::ConditionManager
