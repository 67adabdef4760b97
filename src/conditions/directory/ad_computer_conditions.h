#pragma once
// Conditions over the directory identity of the computer itself, as the
// host's computer manager reports it:
//   "ad.ComputerGroup"     the computer is a member of the group "data"."sid"
//   "ad.ComputerGroup.OU"  the computer's account lies strictly below the
//                          organisational unit "data"."distinguishedName"
//
// The initial state is read from the computer manager in Init (without a
// notification); afterwards each change report recomputes it, and only a
// change of the result notifies.
//
// Thread rules: change reports arrive on the computer manager's threads;
// `mutex_` guards the state and notifications are sent after it is released.
// Uninit unregisters from the computer manager.
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "conditions/condition_base.h"
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
    // replaces the state with the result, notifying a change when `notify`.
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
    // Replaces the state by `result`; notifies when it changed and `notify`.
    void Apply(bool result, bool notify);
    // Reads the string member `name` of "data" into `out`; 0 or kInvalidParameter.
    static int32_t LoadTarget(const Json::Value& json, const wchar_t* name, std::wstring& out);

private:
    bool state_ = false;
    std::mutex mutex_;
    bool registered_ = false;  // owner's thread only
};

class ConditionADComputerGroup final : public ConditionADComputerGroupsBase {
public:
    static constexpr const wchar_t* kType = L"ad.ComputerGroup";
    void ComputeCurrentState(bool reload, bool notify) override;
    [[nodiscard]] int32_t LoadConditionData(const Json::Value& json) override;
    const wchar_t* TypeKeyword() const override { return kType; }
    int32_t OnComputerGroupsChanged(const std::vector<ComputerGroup>& groups) override;

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

private:
    // Whether the computer DN `computerDn` lies strictly below the target OU;
    // a DN that cannot be split counts as not below (and is logged).
    bool IsBelowTarget(const std::wstring& computerDn, const wchar_t* function) const;
    std::wstring ouDn_;
};

}  // namespace Product::Integration::ConditionManager
