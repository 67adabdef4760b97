#include "conditions/network/name_conditions.h"

#include <algorithm>

#include "model/json_composed_serializer.h"
#include "os/utf8.h"
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

Json::Value ConditionDNSSuffix::Describe(const NetworkState& state) const {
    Json::Value described(Json::objectValue);
    Json::Value& suffixes = described["suffixes"] = Json::Value(Json::arrayValue);
    described["matched"] = Json::Value();
    for (const std::wstring& suffix : state.dnsSuffixes) {
        suffixes.append(os::WideToUtf8Lossy(suffix));
        if (described["matched"].isNull() && EqualIgnoringCase(suffix, suffix_))
            described["matched"] = os::WideToUtf8Lossy(suffix);
    }
    return described;
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

Json::Value ConditionHostname::Describe(const NetworkState& state) const {
    Json::Value described(Json::objectValue);
    described["hostName"] = os::WideToUtf8Lossy(state.hostName);
    described["matched"] = Compute(state);
    return described;
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

Json::Value ConditionConnectionType::Describe(const NetworkState& state) const {
    Json::Value described(Json::objectValue);
    const bool matched = Compute(state);
    if (ssid_) {
        Json::Value& ssids = described["ssids"] = Json::Value(Json::arrayValue);
        for (const std::wstring& ssid : state.ssids) ssids.append(os::WideToUtf8Lossy(ssid));
        described["matched"] = matched ? Json::Value(os::WideToUtf8Lossy(*ssid_)) : Json::Value();
        return described;
    }
    Json::Value& kinds = described["connectionKinds"] = Json::Value(Json::arrayValue);
    for (ConnectionKind kind : state.connectionKinds) kinds.append(os::WideToUtf8Lossy(ConnectionKindName(kind)));
    described["matched"] = matched ? Json::Value(os::WideToUtf8Lossy(ConnectionKindName(kind_))) : Json::Value();
    return described;
}

}  // namespace Product::Integration::ConditionManager
