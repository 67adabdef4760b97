#pragma once
// Reference agent manager: records agent registrations and the events agents
// send, and hands each event to an optional sink (a recorder in tests, the
// JSON-lines output in the host program). Thread-safe.
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "qv/integration.h"

namespace host {

class AgentManager final : public EnterpriseIntegration::IManager {
public:
    struct SentEvent {
        std::wstring name;
        Json::Value payload;
        int32_t flags = 0;
    };
    using EventSink = std::function<void(const SentEvent&)>;

    // Refuse further registrations / events (to exercise failure paths).
    void SetRefuseRegistration(bool refuse);
    void SetRefuseEvents(bool refuse);
    void SetEventSink(EventSink sink);

    std::vector<SentEvent> Events() const;
    std::vector<EnterpriseIntegration::IAgent*> Agents() const;

    void* QueryInterface(const GUID& iid) override;
    bool SendEvent(const wchar_t* name, const Json::Value& payload, int32_t flags) override;
    EnterpriseIntegration::IAgent* FindAgent(const wchar_t* name) override;
    uint32_t GetAgentCount() override;
    bool RegisterAgent(EnterpriseIntegration::IAgent* agent) override;
    bool UnregisterAgent(EnterpriseIntegration::IAgent* agent) override;

private:
    mutable std::mutex mutex_;
    bool refuseRegistration_ = false;
    bool refuseEvents_ = false;
    EventSink sink_;
    std::vector<SentEvent> events_;
    std::vector<EnterpriseIntegration::IAgent*> agents_;
};

}  // namespace host
