#pragma once
// The host's policy runner ("EndpointIntegration.Manager", the same plug-in
// as the agent manager): runs a method set, that is methods of other agent
// plug-ins, and reports each method's result to the caller's policy agent.
#include <cstdint>
#include <string>

#include <json/value.h>

#include "qv/base_interface.h"

namespace EnterpriseIntegration {

// The caller's side of a run.
class RunPolicyAgent {
public:
    // Asked before a method runs: true with `value` set when the caller has a
    // preset value for plug-in `plugin`, method `method`; false (and `value`
    // untouched) otherwise.
    virtual bool QueryMethodValue(const std::wstring& plugin, const std::wstring& method, int32_t& value) = 0;
    // Told after each method ran, with its result.
    virtual void OnAfterRunPolicy(const std::wstring& plugin, const std::wstring& method, int32_t result) = 0;

protected:
    ~RunPolicyAgent() = default;
};

struct IRunPolicy : IQvBaseInterface {
    static constexpr const wchar_t* kPluginName = L"EndpointIntegration.Manager";
    static constexpr GUID iid = qv::MakeGuid(0x6D91B2F4, 0x3A05, 0x4E7C, 0x8F16, 0x2B4E07C9D351);

    // Runs the method set `request`, a JSON text {"methods": [{"plugin",
    // "method", "params"?}...], "context"?}, for `caller` (the requesting
    // service's name), method by method in order, each result going to
    // `agent` (may be null). `flags` is reserved (0). `response` receives a
    // JSON text with one entry per method and its result; `details` what the
    // runner adds about the run (null when nothing). Returns the first
    // non-zero method result, 0 when every method succeeded, or
    // kInvalidParameter for a request that does not parse or has no
    // "methods" array (nothing is run then). Blocks until the run has ended;
    // callable from any thread.
    [[nodiscard]] virtual int32_t RunPolicy(const wchar_t* request, std::wstring& response, int32_t flags,
                                            Json::Value& details, const wchar_t* caller, RunPolicyAgent* agent) = 0;

protected:
    ~IRunPolicy() = default;
};

}  // namespace EnterpriseIntegration
