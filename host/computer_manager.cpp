#include "host/computer_manager.h"

#include <utility>

#include "qv/status.h"

namespace host {

void* ComputerManager::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IComputerManager::iid))
        return static_cast<IComputerManager*>(this);
    return nullptr;
}

int32_t ComputerManager::GetComputerGroups(std::vector<ComputerGroup>* groups) {
    if (!groups) return qv::status::kInvalidParameter;
    {
        std::lock_guard lock(mutex_);
        if (readFailure_ != 0) return readFailure_;
        *groups = groups_;
    }
    RunDuringRead();
    return 0;
}

int32_t ComputerManager::GetComputerOrganisationalUnit(std::wstring* ou) {
    if (!ou) return qv::status::kInvalidParameter;
    {
        std::lock_guard lock(mutex_);
        if (readFailure_ != 0) return readFailure_;
        *ou = ou_;
    }
    RunDuringRead();
    return 0;
}

int32_t ComputerManager::RegisterEvents(IEvents* subscriber) {
    {
        std::lock_guard lock(mutex_);
        if (registrationFailure_ != 0) return registrationFailure_;
    }
    return subscribers_.Add(subscriber);
}

int32_t ComputerManager::UnregisterEvents(IEvents* subscriber) { return subscribers_.Remove(subscriber); }

size_t ComputerManager::SetGroups(std::vector<ComputerGroup> groups) {
    auto turn = subscribers_.TakeTurn();
    {
        std::lock_guard lock(mutex_);
        groups_ = groups;
    }
    // The subscribers' statuses are only the host's to record; none is kept.
    return turn.Deliver([&](IEvents* s) { static_cast<void>(s->OnComputerGroupsChanged(groups)); });
}

size_t ComputerManager::SetOrganisationalUnit(std::wstring ou) {
    auto turn = subscribers_.TakeTurn();
    {
        std::lock_guard lock(mutex_);
        ou_ = ou;
    }
    return turn.Deliver([&](IEvents* s) { static_cast<void>(s->OnComputerOrganisationalUnitsChanged(ou)); });
}

void ComputerManager::FailReads(int32_t status) {
    std::lock_guard lock(mutex_);
    readFailure_ = status;
}

void ComputerManager::FailRegistration(int32_t status) {
    std::lock_guard lock(mutex_);
    registrationFailure_ = status;
}

void ComputerManager::DuringNextRead(std::function<void()> action) {
    std::lock_guard lock(mutex_);
    duringNextRead_ = std::move(action);
}

void ComputerManager::RunDuringRead() {
    std::function<void()> action;
    {
        std::lock_guard lock(mutex_);
        action = std::exchange(duringNextRead_, nullptr);
    }
    if (action) action();
}

size_t ComputerManager::SubscriberCount() const { return subscribers_.size(); }

}  // namespace host
