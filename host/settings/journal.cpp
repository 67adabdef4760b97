#include "host/settings/journal.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <json/value.h>

#include "host/settings/json_text.h"
#include "host/settings/settings_store.h"
#include "host/settings/value_entry.h"
#include "json/strict_json.h"
#include "os/utf8.h"

namespace host::settings {

namespace {

constexpr std::string_view kRecordStart = "{\"check\":\"";
constexpr std::string_view kRecordMiddle = "\",\"commit\":";
constexpr size_t kCheckDigits = 8;

uint32_t Fnv1a(std::string_view bytes) {
    uint32_t hash = 2166136261u;
    for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return hash;
}

std::string CheckOf(std::string_view commit) {
    static constexpr char kHex[] = "0123456789abcdef";
    const uint32_t hash = Fnv1a(commit);
    std::string digits(kCheckDigits, '0');
    for (size_t i = 0; i < kCheckDigits; ++i) digits[i] = kHex[(hash >> (28 - 4 * i)) & 0xF];
    return digits;
}

}  // namespace

std::string EncodeRecord(const std::vector<std::wstring>& segments, const Changes& changes) {
    size_t size = 64;
    for (const auto& segment : segments) size += 3 * segment.size() + 3;
    for (const auto& [name, value] : changes.values) size += 3 * name.size() + 4 + EntryText(*value).size();
    for (const auto& name : changes.removed) size += 3 * name.size() + 3;
    std::string line;
    line.reserve(size);
    line += kRecordStart;
    line.append(kCheckDigits, '0');  // filled in once the commit is written
    line += kRecordMiddle;
    const size_t commitStart = line.size();
    line += "{\"at\":[";
    for (size_t i = 0; i < segments.size(); ++i) {
        if (i) line += ',';
        AppendQuoted(segments[i], line);
    }
    line += "],\"values\":{";
    bool first = true;
    for (const auto& [name, value] : changes.values) {
        if (!first) line += ',';
        first = false;
        AppendQuoted(name, line);
        line += ':';
        line += EntryText(*value);
    }
    line += "},\"removed\":[";
    first = true;
    for (const auto& name : changes.removed) {
        if (!first) line += ',';
        first = false;
        AppendQuoted(name, line);
    }
    line += "]}";
    line.replace(kRecordStart.size(), kCheckDigits, CheckOf(std::string_view(line).substr(commitStart)));
    line += "}\n";
    return line;
}

size_t FindJournal(std::string_view file) {
    if (file.starts_with(kRecordStart)) return 0;
    const size_t found = file.find(std::string("\n") + std::string(kRecordStart));
    return found == std::string_view::npos ? file.size() : found + 1;
}

size_t LineCount(std::string_view text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

bool DecodeRecord(std::string_view line, std::vector<std::wstring>& segments, Changes& changes, std::wstring& why) {
    const size_t commitStart = kRecordStart.size() + kCheckDigits + kRecordMiddle.size();
    if (line.size() < commitStart + 1 || !line.starts_with(kRecordStart) ||
        line.substr(kRecordStart.size() + kCheckDigits, kRecordMiddle.size()) != kRecordMiddle || line.back() != '}') {
        why = L"not a journal line";
        return false;
    }
    const std::string_view commit = line.substr(commitStart, line.size() - commitStart - 1);
    if (line.substr(kRecordStart.size(), kCheckDigits) != CheckOf(commit)) {
        why = L"its checksum does not match";
        return false;
    }
    Json::Value parsed;
    if (strict_json::Parse(commit, parsed) != strict_json::Outcome::kParsed || !parsed.isObject()) {
        why = L"not a commit";
        return false;
    }
    const Json::Value& at = parsed["at"];
    const Json::Value& values = parsed["values"];
    const Json::Value& removed = parsed["removed"];
    if (!at.isArray() || !values.isObject() || !removed.isArray() || at.size() > SettingsStore::kMaxDepth) {
        why = L"not a commit";
        return false;
    }
    auto name = [](const Json::Value& text) -> std::optional<std::wstring> {
        if (!text.isString()) return std::nullopt;
        auto wide = os::Utf8ToWide(text.asString());
        if (!wide || !ValidChildName(*wide)) return std::nullopt;
        return wide;
    };
    segments.clear();
    for (const auto& segment : at) {
        auto valid = name(segment);
        if (!valid) {
            why = L"a path segment is not a valid name";
            return false;
        }
        segments.push_back(std::move(*valid));
    }
    for (auto it = values.begin(); it != values.end(); ++it) {
        const auto valueName = os::Utf8ToWide(it.name());
        if (!valueName || valueName->find(L'\0') != std::wstring::npos) {
            why = L"a value name is not valid text";
            return false;
        }
        ValuePtr value = ValueFromEntry(*it, L"value \"" + *valueName + L"\"", why);
        if (!value) return false;
        changes.values.emplace(*valueName, std::move(value));
    }
    for (const auto& child : removed) {
        auto valid = name(child);
        if (!valid) {
            why = L"a removed child is not a valid name";
            return false;
        }
        changes.removed.insert(std::move(*valid));
    }
    return true;
}

JournalRead ReadJournal(std::string_view text, size_t firstLine, NodePtr& root, std::wstring& why) {
    JournalRead read;
    size_t number = firstLine;
    while (!text.empty()) {
        ++number;
        const size_t end = text.find('\n');
        const bool last = end == std::string_view::npos || end + 1 == text.size();
        std::vector<std::wstring> segments;
        Changes changes;
        std::wstring problem;
        const bool complete = end != std::string_view::npos;
        if (!complete || !DecodeRecord(text.substr(0, end), segments, changes, problem)) {
            if (last) {
                read.droppedTail = true;
                return read;
            }
            why = L"line " + std::to_wstring(number) + L": " + (complete ? problem : L"incomplete");
            read.damaged = true;
            return read;
        }
        NodePtr ignored;
        root = WithChanges(root.get(), segments, 0, changes, ignored);
        text.remove_prefix(end + 1);
    }
    return read;
}

}  // namespace host::settings
