#include "conditions/catalog.h"

#include <memory>
#include <string>

#include "conditions/boolean_and_or.h"
#include "conditions/boolean_constant.h"
#include "conditions/boolean_not.h"
#include "conditions/directory/ad_computer_conditions.h"
#include "conditions/directory/ad_user_conditions.h"
#include "conditions/file_exists.h"
#include "conditions/network/address_conditions.h"
#include "conditions/network/can_resolve_host.h"
#include "conditions/network/name_conditions.h"
#include "conditions/ovra_connected.h"
#include "json/strict_json.h"
#include "os/utf8.h"

namespace Product::Integration::ConditionManager {
namespace {

constexpr MemberPresence kRequired = MemberPresence::kRequired;
constexpr MemberPresence kOptional = MemberPresence::kOptional;

template <class T>
ConditionType Row(const char* meaning, std::vector<DataMember> data, const char* example) {
    return ConditionType{T::kType, meaning, std::move(data), example, &Manager::EntryFor<T>};
}

std::vector<ConditionType> MakeTable() {
    const DataMember address{"address", "string", kRequired,
                             "an IPv4 or IPv6 address, optionally with a prefix length: 10.1.0.0/16, fe80::/10"};
    const DataMember sid{"sid", "string", kRequired, "the SID of a domain account (S-1-5-21-...)"};
    return {
        Row<ConditionBooleanConstant<true>>("always true", {}, R"({"type":"boolean.TRUE"})"),
        Row<ConditionBooleanConstant<false>>("always false", {}, R"({"type":"boolean.FALSE"})"),
        Row<ConditionBooleanAnd>(
            "true while every child condition is true",
            {{"conditions", "array", kRequired, "the child conditions (condition objects), at least one"}},
            R"({"type":"boolean.AND","data":{"conditions":[{"type":"boolean.TRUE"},{"type":"boolean.TRUE"}]}})"),
        Row<ConditionBooleanOr>(
            "true while at least one child condition is true",
            {{"conditions", "array", kRequired, "the child conditions (condition objects), at least one"}},
            R"({"type":"boolean.OR","data":{"conditions":[{"type":"boolean.FALSE"},{"type":"boolean.TRUE"}]}})"),
        Row<ConditionBooleanNot>("true while its child condition is false",
                                 {{"condition", "object", kRequired, "the child condition"}},
                                 R"({"type":"boolean.NOT","data":{"condition":{"type":"boolean.FALSE"}}})"),
        Row<ConditionFileExists>("true while the path names an existing file or directory",
                                 {{"filePath", "string", kRequired, "the path, passed to the system as it stands"}},
                                 R"({"type":"Test.FileExists","data":{"filePath":"/etc/hosts"}})"),
        Row<ConditionisOvraConnected>("true while the agent's server connection is as given (after 20 s of quiet)",
                                      {{"connected", "boolean", kRequired, "true: while connected; false: while not"}},
                                      R"({"type":"qv.isOvraConnected","data":{"connected":true}})"),
        Row<ConditionCanResolveHost>("true while the host name resolves through DNS (an A or AAAA record)",
                                     {{"address", "string", kRequired, "the host name"}},
                                     R"({"type":"network.canResolveHost","data":{"address":"localhost"}})"),
        Row<ConditionIP>("true while the machine has a unicast address within the prefix", {address},
                         R"({"type":"network.IP","data":{"address":"10.1.0.0/16"}})"),
        Row<ConditionGateway>("true while the machine has a gateway within the prefix", {address},
                              R"({"type":"network.Gateway","data":{"address":"10.1.0.1"}})"),
        Row<ConditionDNS>("true while the machine has a DNS server within the prefix", {address},
                          R"({"type":"network.DNS","data":{"address":"10.1.0.53"}})"),
        Row<ConditionWINS>("true while the machine has a WINS server within the prefix", {address},
                           R"({"type":"network.WINS","data":{"address":"10.1.0.54"}})"),
        Row<ConditionIPRange>(
            "true while a unicast address of the machine lies from start to end (both included, one family)",
            {{"start", "string", kRequired, "the first address of the range"},
             {"end", "string", kRequired, "the last address of the range"}},
            R"({"type":"network.IPRange","data":{"start":"10.1.0.10","end":"10.1.0.99"}})"),
        Row<ConditionDNSSuffix>("true while a DNS suffix of the machine equals the suffix, ignoring case",
                                {{"suffix", "string", kRequired, "the DNS suffix"}},
                                R"({"type":"network.DNSSuffix","data":{"suffix":"corp.example"}})"),
        Row<ConditionHostname>("true while the computer's name matches the pattern, ignoring case",
                               {{"address", "string", kRequired, "the pattern: * any run of characters, ? one"}},
                               R"({"type":"network.Hostname","data":{"address":"WS-*"}})"),
        Row<ConditionConnectionType>(
            "true while a physical adapter of that kind is up with an address, or while connected to the SSID",
            {{"type", "string", kRequired, R"("wifi" or "ethernet", exactly)"},
             {"ssid", "string", kOptional, "with \"wifi\": the wireless network's name, compared exactly"}},
            R"({"type":"network.ConnectionType","data":{"type":"wifi","ssid":"Office"}})"),
        Row<ConditionADUser>("true while that domain user is logged on", {sid},
                             R"({"type":"ad.User","data":{"sid":"S-1-5-21-1-2-3-1001"}})"),
        Row<ConditionADUserOU>("true while a logged-on domain user's account lies below the organisational unit",
                               {{"distinguishedName", "string", kRequired, "the DN of the organisational unit"}},
                               R"({"type":"ad.User.OU","data":{"distinguishedName":"OU=Staff,DC=corp,DC=local"}})"),
        Row<ConditionADGroup>("true while a logged-on domain user belongs to the group", {sid},
                              R"({"type":"ad.Group","data":{"sid":"S-1-5-21-1-2-3-513"}})"),
        Row<ConditionADComputerGroup>("true while the computer belongs to the group", {sid},
                                      R"({"type":"ad.ComputerGroup","data":{"sid":"S-1-5-21-1-2-3-515"}})"),
        Row<ConditionADComputerGroupOU>(
            "true while the computer's account lies strictly below the organisational unit",
            {{"distinguishedName", "string", kRequired, "the DN of the organisational unit"}},
            R"({"type":"ad.ComputerGroup.OU","data":{"distinguishedName":"OU=Servers,DC=corp,DC=local"}})"),
    };
}

// The examples above are well-formed JSON; a test builds each one.
Json::Value ParseExample(const std::string& text) {
    Json::Value value;
    if (strict_json::Parse(text, value) != strict_json::Outcome::kParsed) return Json::Value();
    return value;
}

}  // namespace

const std::vector<ConditionType>& ConditionTypes() {
    static const std::vector<ConditionType> table = MakeTable();
    return table;
}

Json::Value CatalogJson() {
    Json::Value types(Json::arrayValue);
    for (const ConditionType& type : ConditionTypes()) {
        Json::Value row(Json::objectValue);
        row["type"] = os::WideToUtf8Lossy(type.keyword);
        row["meaning"] = type.meaning;
        Json::Value& data = row["data"] = Json::Value(Json::arrayValue);
        for (const DataMember& member : type.data) {
            Json::Value entry(Json::objectValue);
            entry["name"] = member.name;
            entry["json"] = member.json;
            entry["optional"] = member.presence == MemberPresence::kOptional;
            entry["meaning"] = member.meaning;
            data.append(entry);
        }
        row["example"] = ParseExample(type.example);
        types.append(row);
    }
    return types;
}

}  // namespace Product::Integration::ConditionManager
