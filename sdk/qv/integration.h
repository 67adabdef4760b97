#pragma once
// The host's agent framework: agents front plug-ins for the console, the agent
// manager routes console calls to them and forwards their events.
#include <cstdint>
#include <string>

#include <json/value.h>

#include "qv/serv_plugin.h"

// One console call; valid only for the duration of IAgent::RunPolicyMethod.
struct IMethodCall {
    virtual const wchar_t* GetAgentName() = 0;
    virtual const wchar_t* GetMethodName() = 0;  // may be null
    virtual const wchar_t* GetCallerName() = 0;
    [[nodiscard]] virtual int32_t GetResult() = 0;
    virtual Json::Value* GetRequest() = 0;   // null when the call has no request
    virtual Json::Value* GetResponse() = 0;  // null when the caller wants no response
    virtual void SetResult(int32_t status) = 0;

protected:
    ~IMethodCall() = default;
};

// Receives names, one per call to Add.
struct INameCollector {
    virtual void Add(const wchar_t* name) = 0;

protected:
    ~INameCollector() = default;
};

namespace EnterpriseIntegration {

struct IAgent : IServPlugin {
    static constexpr GUID iid = qv::MakeGuid(0xFFA24485, 0xBAED, 0xAD79, 0xA343, 0x03320000D2E7);

    [[nodiscard]] virtual int32_t Configure() = 0;
    [[nodiscard]] virtual int32_t OnAttached() = 0;
    virtual void RunPolicyMethod(IMethodCall* call) = 0;
    virtual bool IsReady() = 0;
    virtual void GetNames(INameCollector* names) = 0;
    virtual void GetName(std::wstring& name) = 0;
    virtual std::wstring& GetNameInto(std::wstring& name) = 0;
    virtual void OnSessionChange() = 0;
    virtual void OnPowerChange() = 0;
    [[nodiscard]] virtual int32_t OnIdle() = 0;

protected:
    ~IAgent() = default;
};

// The host's agent manager ("EndpointIntegration.Manager").
struct IManager : IQvBaseInterface {
    // The name the host offers it under.
    static constexpr const wchar_t* kPluginName = L"EndpointIntegration.Manager";
    static constexpr GUID iid = qv::MakeGuid(0x81FB569D, 0xDDC6, 0x474F, 0xA64C, 0x75F400002353);

    // Forwards an event to the console; true when accepted.
    virtual bool SendEvent(const wchar_t* name, const Json::Value& payload, int32_t flags) = 0;
    // The registered agent answering to `name`, or null.
    virtual IAgent* FindAgent(const wchar_t* name) = 0;
    virtual uint32_t GetAgentCount() = 0;
    [[nodiscard]] virtual bool RegisterAgent(IAgent* agent) = 0;
    virtual bool UnregisterAgent(IAgent* agent) = 0;

protected:
    ~IManager() = default;
};

}  // namespace EnterpriseIntegration
