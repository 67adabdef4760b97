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
#include "qv/status.h"

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
    line += "{\"at\":";
    AppendQuotedArray(segments, line);
    line += ",\"values\":";
    AppendObject(changes.values, EntryText, line);
    line += ",\"removed\":";
    AppendQuotedArray(changes.removed, line);
    line += '}';
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

os::Expected<Record> DecodeRecord(std::string_view line) {
    auto refuse = [](const wchar_t* why) { return os::Status::Failure(qv::status::kInvalidDataType, why); };
    const size_t commitStart = kRecordStart.size() + kCheckDigits + kRecordMiddle.size();
    if (line.size() < commitStart + 1 || !line.starts_with(kRecordStart) ||
        line.substr(kRecordStart.size() + kCheckDigits, kRecordMiddle.size()) != kRecordMiddle || line.back() != '}') {
        return refuse(L"not a journal line");
    }
    const std::string_view commit = line.substr(commitStart, line.size() - commitStart - 1);
    if (line.substr(kRecordStart.size(), kCheckDigits) != CheckOf(commit))
        return refuse(L"its checksum does not match");
    Json::Value parsed;
    if (strict_json::Parse(commit, parsed) != strict_json::Outcome::kParsed || !parsed.isObject()) {
        return refuse(L"not a commit");
    }
    const Json::Value& at = parsed["at"];
    const Json::Value& values = parsed["values"];
    const Json::Value& removed = parsed["removed"];
    if (!at.isArray() || !values.isObject() || !removed.isArray() || at.size() > SettingsStore::kMaxDepth) {
        return refuse(L"not a commit");
    }
    auto name = [](const Json::Value& text) -> std::optional<std::wstring> {
        if (!text.isString()) return std::nullopt;
        auto wide = os::Utf8ToWide(text.asString());
        if (!wide || !ValidChildName(*wide)) return std::nullopt;
        return wide;
    };
    Record record;
    for (const auto& segment : at) {
        auto valid = name(segment);
        if (!valid) return refuse(L"a path segment is not a valid name");
        record.segments.push_back(std::move(*valid));
    }
    for (auto it = values.begin(); it != values.end(); ++it) {
        const auto valueName = os::Utf8ToWide(it.name());
        if (!valueName || valueName->find(L'\0') != std::wstring::npos)
            return refuse(L"a value name is not valid text");
        os::Expected<ValuePtr> value = ValueFromEntry(*it, L"value \"" + *valueName + L"\"");
        if (!value) return value.status();
        record.changes.values.emplace(*valueName, std::move(*value));
    }
    for (const auto& child : removed) {
        auto valid = name(child);
        if (!valid) return refuse(L"a removed child is not a valid name");
        record.changes.removed.insert(std::move(*valid));
    }
    return record;
}

os::Expected<JournalRead> ReadJournal(std::string_view text, size_t firstLine, NodePtr& root) {
    JournalRead read;
    size_t number = firstLine;
    while (!text.empty()) {
        ++number;
        const size_t end = text.find('\n');
        const bool last = end == std::string_view::npos || end + 1 == text.size();
        const bool complete = end != std::string_view::npos;
        const os::Expected<Record> record = complete ? DecodeRecord(text.substr(0, end))
                                                     : os::Status::Failure(qv::status::kInvalidDataType, L"incomplete");
        if (!record) {
            if (last) {
                read.droppedTail = true;
                return read;
            }
            return record.status().WithContext(L"line " + std::to_wstring(number));
        }
        NodePtr ignored;
        root = WithChanges(root.get(), record->segments, 0, record->changes, ignored);
        text.remove_prefix(end + 1);
    }
    return read;
}

}  // namespace host::settings
