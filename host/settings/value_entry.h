#pragma once
// A value's entry in the settings file: {"string": text}, {"bool": flag} or
// {"json": any}. Made once when a value is set (or, for values read from the
// file, when first written) and shared from then on. Free functions: any
// thread, except EntryText, which fills a value's cached entry and so runs
// under the store's mutex.
#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

#include "host/settings/tree.h"
#include "os/status.h"

namespace host::settings {

// The names of an entry's one member.
constexpr const char* kStringKey = "string";
constexpr const char* kBoolKey = "bool";
constexpr const char* kJsonKey = "json";

// The entry of `value`; null when the store cannot keep it (nested deeper
// than the store allows, or text that is not UTF-8). `sizeHint` is the
// expected size of the entry (0: unknown).
std::optional<JsonEntry> MakeJsonEntry(const Json::Value& value, size_t sizeHint = 0);

// A value's JSON as this store made it; it always parses (std::runtime_error
// otherwise).
Json::Value ParseStored(std::string_view compact);

// A value ready to share, with its entry made.
ValuePtr MakeValue(Value value);

// The value's entry, made the first time it is asked for. Under the store's mutex.
const std::string& EntryText(const StoredValue& stored);

// Reads a value's entry; on failure kInvalidDataType, saying what is wrong
// with the value `at`.
os::Expected<ValuePtr> ValueFromEntry(const Json::Value& entry, const std::wstring& at);

}  // namespace host::settings
