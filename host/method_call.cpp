#include "host/method_call.h"

namespace host {

MethodCall::MethodCall(std::wstring agentName, const wchar_t* methodName, std::optional<Json::Value> request,
                       bool wantResponse)
    : agentName_(std::move(agentName)),
      methodName_(methodName ? std::optional<std::wstring>(methodName) : std::nullopt),
      request_(std::move(request)),
      response_(wantResponse ? std::optional<Json::Value>(Json::Value(Json::objectValue)) : std::nullopt) {}

}  // namespace host
