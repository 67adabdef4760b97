#include "host/settings/value_entry.h"

#include <stdexcept>
#include <utility>

#include "host/settings/json_text.h"
#include "host/settings/settings_store.h"
#include "json/strict_json.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace host::settings {

namespace {

// The file's entry for a string or a bool. A JSON value carries its entry itself.
std::string EntryOf(const Value& value) {
    std::string entry = "{";
    if (const auto* text = std::get_if<std::wstring>(&value)) {
        AppendQuoted(kStringKey, entry);
        entry += ':';
        AppendQuoted(*text, entry);
    } else {
        AppendQuoted(kBoolKey, entry);
        entry += std::get<bool>(value) ? ":true" : ":false";
    }
    entry += '}';
    return entry;
}

}  // namespace

std::optional<JsonEntry> MakeJsonEntry(const Json::Value& value, size_t sizeHint) {
    JsonEntry json;
    json.entry.reserve(sizeHint);
    json.entry = JsonEntry::kPrefix;
    if (!AppendJson(value, SettingsStore::kMaxJsonDepth, json.entry)) return std::nullopt;
    json.entry += '}';
    return json;
}

Json::Value ParseStored(std::string_view compact) {
    Json::Value value;
    if (strict_json::Parse(compact, value, nullptr, strict_json::Root::kAnyValue) != strict_json::Outcome::kParsed)
        throw std::runtime_error("stored JSON does not parse");
    return value;
}

ValuePtr MakeValue(Value value) {
    std::string entry = std::holds_alternative<JsonEntry>(value) ? std::string() : EntryOf(value);
    return std::make_shared<const StoredValue>(StoredValue{std::move(value), std::move(entry)});
}

const std::string& EntryText(const StoredValue& stored) {
    if (const auto* json = std::get_if<JsonEntry>(&stored.value)) return json->entry;
    if (stored.entry.empty()) stored.entry = EntryOf(stored.value);
    return stored.entry;
}

os::Expected<ValuePtr> ValueFromEntry(const Json::Value& entry, const std::wstring& at) {
    auto refuse = [&](const std::wstring& why) { return os::Status::Failure(qv::status::kInvalidDataType, at + why); };
    if (!entry.isObject() || entry.size() != 1) return refuse(L" is not one typed entry");
    if (entry.isMember(kStringKey)) {
        const Json::Value& text = entry[kStringKey];
        std::optional<std::wstring> wide;
        if (text.isString()) wide = os::Utf8ToWide(text.asString());
        if (wide) return std::make_shared<const StoredValue>(StoredValue{std::move(*wide), {}});
        return refuse(L": the string is not valid text");
    }
    if (entry.isMember(kBoolKey)) {
        if (entry[kBoolKey].isBool())
            return std::make_shared<const StoredValue>(StoredValue{entry[kBoolKey].asBool(), {}});
        return refuse(L": not a bool");
    }
    if (entry.isMember(kJsonKey)) {
        if (auto json = MakeJsonEntry(entry[kJsonKey]))
            return std::make_shared<const StoredValue>(StoredValue{std::move(*json), {}});
        return refuse(L": JSON the store would refuse");
    }
    return refuse(L" has no known type");
}

}  // namespace host::settings
