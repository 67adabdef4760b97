#pragma once
// Reference console call: the object the host hands to an agent's
// RunPolicyMethod for one command. It carries the agent and method names, an
// optional request and an optional response, and records every result the
// agent reports. Used on one thread at a time.
#include <optional>
#include <string>
#include <vector>

#include "qv/integration.h"

namespace host {

class MethodCall final : public IMethodCall {
public:
    // A null `methodName` is handed to the agent as null.
    MethodCall(std::wstring agentName, const wchar_t* methodName,
               std::optional<Json::Value> request = Json::Value(Json::objectValue), bool wantResponse = true);

    const wchar_t* GetAgentName() override { return agentName_.c_str(); }
    const wchar_t* GetMethodName() override { return methodName_ ? methodName_->c_str() : nullptr; }
    const wchar_t* GetCallerName() override { return kCallerName; }
    // The last result reported, or kNoResult while none was.
    int32_t GetResult() override { return results_.empty() ? kNoResult : results_.back(); }
    Json::Value* GetRequest() override { return request_ ? &*request_ : nullptr; }
    Json::Value* GetResponse() override { return response_ ? &*response_ : nullptr; }
    void SetResult(int32_t status) override { results_.push_back(status); }

    static constexpr int32_t kNoResult = -1;
    static constexpr const wchar_t* kCallerName = L"Console";

    // Every result reported, in order (an agent reports exactly one per call).
    const std::vector<int32_t>& results() const noexcept { return results_; }
    // The response object, or null when none was asked for.
    const Json::Value* response() const { return response_ ? &*response_ : nullptr; }

private:
    std::wstring agentName_;
    std::optional<std::wstring> methodName_;
    std::optional<Json::Value> request_;
    std::optional<Json::Value> response_;
    std::vector<int32_t> results_;
};

}  // namespace host
