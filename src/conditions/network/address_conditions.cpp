#include "conditions/network/address_conditions.h"

#include <string>

#include "conditions/network/address_match.h"
#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kIPInit = L"Product::Integration::ConditionManager::ConditionIPBase::Init";
constexpr const wchar_t* kRangeInit = L"Product::Integration::ConditionManager::ConditionIPRange::Init";
using qv::Network::IPv4;
using qv::Network::IPv6;

// {"<name>": [each entry of `list` as text], "matched": `matched` as text, or null}
template <class List>
Json::Value ListAndMatch(const char* name, const List& list, const typename List::value_type* matched) {
    Json::Value described(Json::objectValue);
    Json::Value& entries = described[name] = Json::Value(Json::arrayValue);
    for (const auto& entry : list) entries.append(os::WideToUtf8Lossy(entry.ToString()));
    described["matched"] = matched ? Json::Value(os::WideToUtf8Lossy(matched->ToString())) : Json::Value();
    return described;
}
}  // namespace

int32_t ConditionIPBase::Init(const InitData& data) {
    logging::CallTrace trace(kIPInit);
    if (const int32_t status = ConditionNetworkBase::Init(data); status != 0) return status;
    std::wstring text;
    if (!qv::JsonComposedSerializer::Load(DataOf(data.json), L"address", text)) {
        logging::Log(logging::kError, kIPInit, L"Node \"address\" not found. Invalid Json");
        return qv::status::kInvalidParameter;
    }
    if (IPv4::FromString(ipv4_, text) == 0) {
        kind_ = AddressFamilyKind::kIPv4;
    } else if (const int32_t status = IPv6::FromString(ipv6_, text); status == 0) {
        kind_ = AddressFamilyKind::kIPv6;
    } else {
        logging::Log(logging::kError, kIPInit, L"Invalid address [%s] error = [%d]", text.c_str(), status);
        return status;
    }
    return Attach();
}

bool ConditionIPBase::Compute(const NetworkState& state) const {
    switch (kind_) {
        case AddressFamilyKind::kIPv4:
            return FindInPrefix(FourList(state), ipv4_) != nullptr;
        case AddressFamilyKind::kIPv6:
            return FindInPrefix(SixList(state), ipv6_) != nullptr;
        case AddressFamilyKind::kNone:
            break;
    }
    return false;
}

Json::Value ConditionIPBase::Describe(const NetworkState& state) const {
    if (kind_ == AddressFamilyKind::kIPv6)
        return ListAndMatch(ListName(), SixList(state), FindInPrefix(SixList(state), ipv6_));
    return ListAndMatch(ListName(), FourList(state), FindInPrefix(FourList(state), ipv4_));
}

int32_t ConditionIPRange::Init(const InitData& data) {
    logging::CallTrace trace(kRangeInit);
    if (const int32_t status = ConditionNetworkBase::Init(data); status != 0) return status;
    const Json::Value& parameters = DataOf(data.json);
    std::wstring start, end;
    if (!qv::JsonComposedSerializer::Load(parameters, L"start", start) ||
        !qv::JsonComposedSerializer::Load(parameters, L"end", end))
        return qv::status::kInvalidParameter;
    kind_ = AddressFamilyKind::kNone;
    if (IPv4::FromString(startIPv4_, start) == 0 && IPv4::FromString(endIPv4_, end) == 0) {
        kind_ = AddressFamilyKind::kIPv4;
    } else if (IPv6::FromString(startIPv6_, start) == 0 && IPv6::FromString(endIPv6_, end) == 0) {
        kind_ = AddressFamilyKind::kIPv6;
    } else {
        logging::Log(logging::kError, kRangeInit, L"Invalid range [%s] - [%s]", start.c_str(), end.c_str());
        return qv::status::kInvalidParameter;
    }
    return Attach();
}

bool ConditionIPRange::Compute(const NetworkState& state) const {
    switch (kind_) {
        case AddressFamilyKind::kIPv4:
            return FindInRange(state.ipv4Addresses, startIPv4_, endIPv4_) != nullptr;
        case AddressFamilyKind::kIPv6:
            return FindInRange(state.ipv6Addresses, startIPv6_, endIPv6_) != nullptr;
        case AddressFamilyKind::kNone:
            break;
    }
    return false;
}

Json::Value ConditionIPRange::Describe(const NetworkState& state) const {
    if (kind_ == AddressFamilyKind::kIPv6)
        return ListAndMatch("addresses", state.ipv6Addresses, FindInRange(state.ipv6Addresses, startIPv6_, endIPv6_));
    return ListAndMatch("addresses", state.ipv4Addresses, FindInRange(state.ipv4Addresses, startIPv4_, endIPv4_));
}

}  // namespace Product::Integration::ConditionManager
