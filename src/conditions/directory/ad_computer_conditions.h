#pragma once
// Conditions over the directory identity of the computer itself, as the
// host's computer manager reports it:
//   "ad.ComputerGroup"     the computer is a member of the group "data"."sid"
//   "ad.ComputerGroup.OU"  the computer's account lies strictly below the
//                          organisational unit "data"."distinguishedName"
//
// Init registers for change reports first and then reads the current value
// (without a notification), so that no change falls between the two; a
// report that arrives while the value is being read is newer than what was
// read, and the read result is then dropped. Afterwards each change report
// recomputes the state, and only a change of the result notifies.
//
// Thread rules: change reports arrive on the computer manager's threads;
// `mutex_` guards the state and the count of reports, and notifications are
// sent after it is released. Nothing thrown leaves a report's callback.
// Uninit unregisters from the computer manager.
#include <cstdint>
#include <string>
#include <vector>

#include "conditions/condition_base.h"
#include "os/thread_annotations.h"
#include "qv/computer_manager.h"

namespace Product::Integration::ConditionManager {

class ConditionADComputerGroupsBase
    : public ConditionBaseWithDepends<ConditionBase, Product::ComputerManager::IComputerManager>,
      public Product::ComputerManager::IComputerManager::IEvents {
public:
    using ComputerGroup = Product::ComputerManager::ComputerGroup;

    ~ConditionADComputerGroupsBase() override;

    // kDependencyNotFound without the computer manager; kInvalidParameter when
    // "data" or its member is absent; the manager's status when it refuses
    // the registration.
    [[nodiscard]] int32_t Init(const InitData& data) override;
    // Unregisters from the computer manager. Idempotent.
    void Uninit() override;
    // The cached state; 0.
    [[nodiscard]] int32_t GetState(bool* state, bool recompute) override;

    // With `reload`, reads the current value from the computer manager and
    // replaces the state with the result (unless a change report arrived
    // meanwhile), notifying a change when `notify`.
    virtual void ComputeCurrentState(bool reload, bool notify) = 0;
    // Reads the type's "data"; 0 or kInvalidParameter.
    [[nodiscard]] virtual int32_t LoadConditionData(const Json::Value& json) = 0;
    virtual const wchar_t* TypeKeyword() const = 0;

    int32_t OnComputerGroupsChanged(const std::vector<ComputerGroup>&) override { return 0; }
    int32_t OnComputerOrganisationalUnitsChanged(const std::wstring&) override { return 0; }

protected:
    Product::ComputerManager::IComputerManager* manager() {
        return Dependency<Product::ComputerManager::IComputerManager>();
    }
    // The number of change reports applied so far.
    uint64_t ReportsSeen();
    // The result of a read that started after `reportsBefore` reports:
    // replaces the state unless a report came since (that report is newer);
    // notifies a change when `notify`.
    void ApplyRead(bool result, uint64_t reportsBefore, bool notify);
    // The result of a change report: replaces the state, notifies a change.
    void ApplyReport(bool result);
    // Reads the string member `name` of "data" into `out`; 0 or kInvalidParameter.
    static int32_t LoadTarget(const Json::Value& json, const wchar_t* name, std::wstring& out);

private:
    os::Mutex mutex_;
    bool state_ CR_GUARDED_BY(mutex_) = false;
    uint64_t reports_ CR_GUARDED_BY(mutex_) = 0;  // change reports applied
    bool registered_ = false;                     // owner's thread only
};

class ConditionADComputerGroup final : public ConditionADComputerGroupsBase {
public:
    static constexpr const wchar_t* kType = L"ad.ComputerGroup";
    void ComputeCurrentState(bool reload, bool notify) override;
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;
    const wchar_t* TypeKeyword() const override { return kType; }
    int32_t OnComputerGroupsChanged(const std::vector<ComputerGroup>& groups) override;
    // {"groups": [{"dn", "sid", "matched": bool}]}: the computer's groups as
    // the computer manager reports them now.
    [[nodiscard]] Json::Value Observed() override;

private:
    // Whether one of `groups` has the target SID, ignoring case.
    bool IsMember(const std::vector<ComputerGroup>& groups) const;
    std::wstring sid_;
};

class ConditionADComputerGroupOU final : public ConditionADComputerGroupsBase {
public:
    static constexpr const wchar_t* kType = L"ad.ComputerGroup.OU";
    void ComputeCurrentState(bool reload, bool notify) override;
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;
    const wchar_t* TypeKeyword() const override { return kType; }
    int32_t OnComputerOrganisationalUnitsChanged(const std::wstring& ou) override;
    // {"computerDn": the computer's DN as the computer manager reports it now,
    //  "matched": whether it lies strictly below the OU}
    [[nodiscard]] Json::Value Observed() override;

private:
    // Whether the computer DN `computerDn` lies strictly below the target OU;
    // a DN that cannot be split, or any other failure of the test, counts as
    // not below (and is logged under `function`).
    bool IsBelowTarget(const std::wstring& computerDn, const wchar_t* function) const;
    std::wstring ouDn_;
};

}  // namespace Product::Integration::ConditionManager
