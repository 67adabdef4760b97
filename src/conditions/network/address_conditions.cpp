#include "conditions/network/address_conditions.h"

#include <string>

#include "conditions/network/address_match.h"
#include "model/json_composed_serializer.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kIPInit = L"Product::Integration::ConditionManager::ConditionIPBase::Init";
constexpr const wchar_t* kRangeInit = L"Product::Integration::ConditionManager::ConditionIPRange::Init";
using qv::Network::IPv4;
using qv::Network::IPv6;
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
            return AnyInPrefix(FourList(state), ipv4_);
        case AddressFamilyKind::kIPv6:
            return AnyInPrefix(SixList(state), ipv6_);
        case AddressFamilyKind::kNone:
            break;
    }
    return false;
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
            return AnyInRange(state.ipv4Addresses, startIPv4_, endIPv4_);
        case AddressFamilyKind::kIPv6:
            return AnyInRange(state.ipv6Addresses, startIPv6_, endIPv6_);
        case AddressFamilyKind::kNone:
            break;
    }
    return false;
}

}  // namespace Product::Integration::ConditionManager
