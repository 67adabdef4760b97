#pragma once
// The settings store's JSON writer: compact text made directly from UTF-8
// strings and jsoncpp values, which jsoncpp's strict reader reads back as the
// same value. Only what JSON requires is escaped; other text (well-formed
// UTF-8) is copied as it is. Free functions without state: any thread.
#include <string>
#include <string_view>

#include <json/value.h>

namespace host::settings {

// Appends `utf8` as a JSON string. Returns whether it held any byte above
// 0x7F (a multi-byte sequence), which only then needs checking.
bool AppendQuoted(std::string_view utf8, std::string& out);

// Appends `text` quoted; false when it is not well-formed UTF-8.
[[nodiscard]] bool AppendQuotedChecked(std::string_view text, std::string& out);

// Appends `text` (UTF-8 by conversion; an unpaired surrogate becomes U+FFFD)
// quoted.
void AppendQuoted(const std::wstring& text, std::string& out);

// Appends `value` as compact JSON (members in jsoncpp's order, numbers as its
// writer gives them). False when it nests deeper than `depth` levels or holds
// text (a string or a member name) that is not well-formed UTF-8: such a
// value could not be read back. `out` then holds part of the value.
[[nodiscard]] bool AppendJson(const Json::Value& value, int depth, std::string& out);

// Appends the names in `names` as a JSON array of strings.
template <class Names>
void AppendQuotedArray(const Names& names, std::string& out) {
    out += '[';
    bool first = true;
    for (const auto& name : names) {
        if (!first) out += ',';
        first = false;
        AppendQuoted(name, out);
    }
    out += ']';
}

// Appends {name: textOf(*member), ...} for the (name, member pointer) pairs
// of `members`, where textOf gives a member's JSON text ready made.
template <class Members, class TextOfMember>
void AppendObject(const Members& members, TextOfMember textOf, std::string& out) {
    out += '{';
    bool first = true;
    for (const auto& [name, member] : members) {
        if (!first) out += ',';
        first = false;
        AppendQuoted(name, out);
        out += ':';
        out += textOf(*member);
    }
    out += '}';
}

}  // namespace host::settings
