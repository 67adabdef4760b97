#pragma once
// The reference host's computer manager ("Product.ComputerManager"): the
// computer's groups and organisational unit, as the host program or a test
// sets them by hand, reported to every registered subscriber.
//
// Thread rule: every operation may be called from any thread. A report is
// delivered on the thread that sets the value, to each subscriber in
// registration order, outside the manager's lock: reports are delivered one
// after the other, and once UnregisterEvents returns the subscriber is not
// called again. A subscriber may read the values, (un)register or set a value
// from inside its callback (host/subscriber_list.h says what else).
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "host/subscriber_list.h"

#include "qv/computer_manager.h"

namespace host {

class ComputerManager final : public Product::ComputerManager::IComputerManager {
public:
    using ComputerGroup = Product::ComputerManager::ComputerGroup;
    static constexpr const wchar_t* kName = IComputerManager::kPluginName;

    ComputerManager() = default;
    ComputerManager(const ComputerManager&) = delete;
    ComputerManager& operator=(const ComputerManager&) = delete;

    void* QueryInterface(const GUID& iid) override;
    // The current values, or the status set by FailReads.
    int32_t GetComputerGroups(std::vector<ComputerGroup>* groups) override;
    int32_t GetComputerOrganisationalUnit(std::wstring* ou) override;
    int32_t RegisterEvents(IEvents* subscriber) override;
    int32_t UnregisterEvents(IEvents* subscriber) override;

    // Replaces the groups and reports them, also when they did not change (a
    // directory refresh reports the whole list). Returns the subscribers called.
    size_t SetGroups(std::vector<ComputerGroup> groups);
    // Replaces the computer account's DN (which places it in its
    // organisational unit) and reports it likewise.
    size_t SetOrganisationalUnit(std::wstring ou);
    // Makes both reads fail with `status` (0: succeed again).
    void FailReads(int32_t status);
    // Makes RegisterEvents refuse with `status` (0: accept again).
    void FailRegistration(int32_t status);
    // Runs `action` once, inside the next read (of the groups or the OU)
    // after it has taken its copy: a change that `action` sets is reported
    // while the reader still holds the older value.
    void DuringNextRead(std::function<void()> action);

    size_t SubscriberCount() const;

private:
    void RunDuringRead();

    mutable std::mutex mutex_;  // guards the members below but the subscribers
    std::vector<ComputerGroup> groups_;
    std::wstring ou_;
    int32_t readFailure_ = 0;
    int32_t registrationFailure_ = 0;
    std::function<void()> duringNextRead_;
    SubscriberList<IEvents> subscribers_;
};

}  // namespace host
