#include "conditions/network/name_conditions.h"

#include <algorithm>

#include "model/json_composed_serializer.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kSuffixInit = L"Product::Integration::ConditionManager::ConditionDNSSuffix::Init";
constexpr const wchar_t* kHostnameInit = L"Product::Integration::ConditionManager::ConditionHostname::Init";
constexpr const wchar_t* kConnectionTypeInit = L"Product::Integration::ConditionManager::ConditionConnectionType::Init";

wchar_t FoldAscii(wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; }

bool EqualIgnoringCase(const std::wstring& a, const std::wstring& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) { return FoldAscii(x) == FoldAscii(y); });
}

}  // namespace

int32_t ConditionDNSSuffix::Init(const InitData& data) {
    logging::CallTrace trace(kSuffixInit);
    if (const int32_t status = ConditionNetworkBase::Init(data); status != 0) return status;
    if (!qv::JsonComposedSerializer::Load(DataOf(data.json), L"suffix", suffix_)) return qv::status::kInvalidParameter;
    return Attach();
}

bool ConditionDNSSuffix::Compute(const NetworkState& state) const {
    return std::any_of(state.dnsSuffixes.begin(), state.dnsSuffixes.end(),
                       [&](const std::wstring& suffix) { return EqualIgnoringCase(suffix, suffix_); });
}

int32_t ConditionHostname::Init(const InitData& data) {
    logging::CallTrace trace(kHostnameInit);
    if (const int32_t status = ConditionNetworkBase::Init(data); status != 0) {
        logging::Log(logging::kError, kHostnameInit, L"__super::Init() failed. Error: %d", status);
        return status;
    }
    if (!qv::JsonComposedSerializer::Load(DataOf(data.json), L"address", pattern_)) {
        logging::Log(logging::kError, kHostnameInit, L"Node \"address\" not found. Invalid Json");
        return qv::status::kInvalidParameter;
    }
    if (pattern_.empty()) {
        logging::Log(logging::kError, kHostnameInit, L"Hostname empty.");
        return qv::status::kInvalidParameter;
    }
    matcher_.emplace(pattern_);
    return Attach();
}

bool ConditionHostname::Compute(const NetworkState& state) const {
    return matcher_ && matcher_->Matches(state.hostName);
}

int32_t ConditionConnectionType::Init(const InitData& data) {
    logging::CallTrace trace(kConnectionTypeInit);
    if (const int32_t status = ConditionNetworkBase::Init(data); status != 0) return status;
    const Json::Value& parameters = DataOf(data.json);
    std::wstring type;
    if (!qv::JsonComposedSerializer::Load(parameters, L"type", type)) {
        logging::Log(logging::kError, kConnectionTypeInit, L"Node \"type\" not found. Invalid Json");
        return qv::status::kInvalidParameter;
    }
    if (type == L"wifi") {
        kind_ = ConnectionKind::kWireless;
        if (parameters.isObject() && parameters.isMember("ssid")) {
            std::wstring ssid;
            if (!qv::JsonComposedSerializer::Load(parameters, L"ssid", ssid)) return qv::status::kInvalidParameter;
            // No network has an empty name: an empty "ssid" asks for the kind.
            if (!ssid.empty()) ssid_ = std::move(ssid);
        }
    } else if (type == L"ethernet") {
        kind_ = ConnectionKind::kEthernet;
    } else {
        logging::Log(logging::kError, kConnectionTypeInit, L"Unknown connection type [%s]", type.c_str());
        return qv::status::kInvalidParameter;
    }
    return Attach();
}

bool ConditionConnectionType::Compute(const NetworkState& state) const {
    if (ssid_) return std::find(state.ssids.begin(), state.ssids.end(), *ssid_) != state.ssids.end();
    return std::find(state.connectionKinds.begin(), state.connectionKinds.end(), kind_) != state.connectionKinds.end();
}

}  // namespace Product::Integration::ConditionManager
