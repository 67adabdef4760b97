#include "host/agent_manager.h"

#include <algorithm>

namespace host {

void AgentManager::SetRefuseRegistration(bool refuse) {
    std::lock_guard lock(mutex_);
    refuseRegistration_ = refuse;
}

void AgentManager::SetRefuseEvents(bool refuse) {
    std::lock_guard lock(mutex_);
    refuseEvents_ = refuse;
}

void AgentManager::SetEventSink(EventSink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

std::vector<AgentManager::SentEvent> AgentManager::Events() const {
    std::lock_guard lock(mutex_);
    return events_;
}

std::vector<EnterpriseIntegration::IAgent*> AgentManager::Agents() const {
    std::lock_guard lock(mutex_);
    return agents_;
}

void* AgentManager::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IManager::iid))
        return static_cast<IManager*>(this);
    return nullptr;
}

bool AgentManager::SendEvent(const wchar_t* name, const Json::Value& payload, int32_t flags) {
    EventSink sink;
    SentEvent event{name ? name : L"", payload, flags};
    {
        std::lock_guard lock(mutex_);
        if (refuseEvents_ || !name) return false;
        events_.push_back(event);
        sink = sink_;
    }
    if (sink) sink(event);
    return true;
}

EnterpriseIntegration::IAgent* AgentManager::FindAgent(const wchar_t* name) {
    if (!name) return nullptr;
    std::vector<EnterpriseIntegration::IAgent*> agents = Agents();
    for (auto* agent : agents) {
        std::wstring agentName;
        agent->GetName(agentName);
        if (agentName == name) return agent;
    }
    return nullptr;
}

uint32_t AgentManager::GetAgentCount() {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(agents_.size());
}

bool AgentManager::RegisterAgent(EnterpriseIntegration::IAgent* agent) {
    std::lock_guard lock(mutex_);
    if (refuseRegistration_ || !agent) return false;
    if (std::find(agents_.begin(), agents_.end(), agent) != agents_.end()) return false;
    agents_.push_back(agent);
    return true;
}

bool AgentManager::UnregisterAgent(EnterpriseIntegration::IAgent* agent) {
    std::lock_guard lock(mutex_);
    auto it = std::find(agents_.begin(), agents_.end(), agent);
    if (it == agents_.end()) return false;
    agents_.erase(it);
    return true;
}

}  // namespace host
