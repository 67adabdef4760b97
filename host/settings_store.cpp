#include "host/settings_store.h"

#include <algorithm>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>

#include <json/reader.h>
#include <json/writer.h>

#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace host {

namespace {

namespace status = qv::status;

// The order of Windows' ordinal comparison: UTF-16 code units. Where wchar_t
// holds whole code points, those above U+FFFF (surrogate pairs in UTF-16,
// 0xD800-0xDBFF first) sort after U+D7FF and before U+E000.
uint32_t OrdinalWeight(wchar_t c) {
    const auto u = static_cast<uint32_t>(c);
    if constexpr (sizeof(wchar_t) == 2) {
        return u;
    } else {
        if (u < 0xE000) return u;
        if (u <= 0xFFFF) return u + 0x100000;
        return 0xE000 + (u - 0x10000);
    }
}

struct OrdinalLess {
    bool operator()(const std::wstring& a, const std::wstring& b) const {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                            [](wchar_t x, wchar_t y) { return OrdinalWeight(x) < OrdinalWeight(y); });
    }
};

// A JSON value, kept as its entry in the file, {"json":<compact text>}: made
// once when set, it is what commits write and what readers parse.
struct JsonEntry {
    static constexpr std::string_view kPrefix = "{\"json\":";
    std::string entry;
    std::string_view compact() const {
        return std::string_view(entry).substr(kPrefix.size(), entry.size() - kPrefix.size() - 1);
    }
};

// A stored value; the alternative is its type.
using Value = std::variant<std::wstring, bool, JsonEntry>;

// Names of the tree's parts in the file: {"values": {name: {"string": text} |
// {"bool": flag} | {"json": any}}, "children": {name: node}}.
constexpr const char* kValuesKey = "values";
constexpr const char* kChildrenKey = "children";
constexpr const char* kStringKey = "string";
constexpr const char* kBoolKey = "bool";
constexpr const char* kJsonKey = "json";

bool IsText(const std::wstring& text) { return os::WideToUtf8(text).has_value(); }

bool ValidValueName(const wchar_t* name) { return name && IsText(name); }

bool ValidChildName(const std::wstring& name) {
    return !name.empty() && name.find(L'/') == std::wstring::npos && name.find(L'\0') == std::wstring::npos &&
           IsText(name);
}

// "/" is the root; "/A/B" the child B of A. Null, a missing leading '/', an
// empty segment (a trailing '/' included) or a bad name is malformed.
bool ParsePath(const wchar_t* path, std::vector<std::wstring>& segments) {
    segments.clear();
    if (!path || path[0] != L'/') return false;
    const std::wstring text(path);
    if (text.size() == 1) return true;
    size_t start = 1;
    for (;;) {
        const size_t end = text.find(L'/', start);
        std::wstring segment = text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start);
        if (!ValidChildName(segment) || segments.size() == SettingsStore::kMaxDepth) return false;
        segments.push_back(std::move(segment));
        if (end == std::wstring::npos) return true;
        start = end + 1;
    }
}

int32_t Guarded(auto&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return status::kNotEnoughMemory;
    } catch (...) {
        return status::kFunctionFailed;
    }
}

// A value with its entry as written to the file ({"string": ...} and so on).
// Immutable once made, so the tree's nodes and a writing node's changes share
// it. `entry` is made with a string or bool when it is set; such values read
// from the file leave it empty and get it the first time their node is
// written, under the store's mutex. A JSON value carries its entry itself
// (see EntryText).
struct StoredValue {
    Value value;
    mutable std::string entry;
};
using ValuePtr = std::shared_ptr<const StoredValue>;

}  // namespace

// `text` is the node's subtree as written to the file, kept so that a commit
// only writes anew the nodes it changed and copies the text of all others.
// Empty until first needed; it is only read or filled under the store's
// mutex (nodes are immutable once committed, so it never goes stale).
struct SettingsStore::Node {
    std::map<std::wstring, ValuePtr> values;
    std::map<std::wstring, NodePtr, OrdinalLess> children;
    mutable std::string text;
};

struct SettingsStore::Changes {
    std::map<std::wstring, ValuePtr> values;
    std::set<std::wstring> removed;  // children
};

namespace {

using Node = SettingsStore::Node;
using NodePtr = SettingsStore::NodePtr;

// Appends `utf8` as a JSON string. Only what JSON requires is escaped; the
// rest of the text (well-formed UTF-8) is copied as it is.
// Returns whether `utf8` held any byte above 0x7F (a multi-byte sequence).
bool AppendQuoted(std::string_view utf8, std::string& out) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    size_t plain = 0;  // start of the run not yet copied
    unsigned char seen = 0;
    for (size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        seen |= c;
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(utf8, plain, i - plain);
        plain = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += "\\u00";
                out += kHex[c >> 4];
                out += kHex[c & 0xF];
        }
    }
    out.append(utf8, plain, std::string_view::npos);
    out += '"';
    return (seen & 0x80) != 0;
}

// Appends `text` quoted; false when it is not well-formed UTF-8, which is
// checked only for text that is not plain ASCII.
bool AppendQuotedChecked(std::string_view text, std::string& out) {
    return !AppendQuoted(text, out) || os::IsUtf8(text);
}

void AppendQuoted(const std::wstring& text, std::string& out) {
    static_cast<void>(AppendQuoted(os::WideToUtf8Lossy(text), out));
}

// Appends `value` as compact JSON (members in jsoncpp's order, numbers as its
// writer gives them). False when it nests deeper than `depth` levels or holds
// text (a string or a member name) that is not well-formed UTF-8: such a
// value could not be read back. One pass both checks and writes.
bool AppendJson(const Json::Value& value, int depth, std::string& out) {
    if (depth <= 0) return false;
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            return true;
        case Json::intValue:
            out += Json::valueToString(value.asLargestInt());
            return true;
        case Json::uintValue:
            out += Json::valueToString(value.asLargestUInt());
            return true;
        case Json::realValue:
            out += Json::valueToString(value.asDouble());
            return true;
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            return true;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            if (!value.getString(&begin, &end)) return false;
            const std::string_view text(begin, static_cast<size_t>(end - begin));
            return AppendQuotedChecked(text, out);
        }
        case Json::arrayValue: {
            out += '[';
            // Iterated, not indexed: each index would be a lookup.
            bool first = true;
            for (auto it = value.begin(), end = value.end(); it != end; ++it) {
                if (!first) out += ',';
                first = false;
                if (!AppendJson(*it, depth - 1, out)) return false;
            }
            out += ']';
            return true;
        }
        case Json::objectValue: {
            out += '{';
            bool first = true;
            for (auto it = value.begin(), last = value.end(); it != last; ++it) {
                if (!first) out += ',';
                first = false;
                const char* end = nullptr;
                const char* name = it.memberName(&end);
                const std::string_view text(name, static_cast<size_t>(end - name));
                if (!AppendQuotedChecked(text, out)) return false;
                out += ':';
                if (!AppendJson(*it, depth - 1, out)) return false;
            }
            out += '}';
            return true;
        }
    }
    return false;
}

// Parses `text` strictly (one JSON value, nothing after it) into `value`;
// on failure `errors` says why.
bool ParseStrict(std::string_view text, Json::Value& value, std::string* errors = nullptr) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // a stored value may be a number or a string
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, errors);
}

// The entry of `value`; null when the store cannot keep it (see AppendJson).
// `sizeHint` is the expected size of the entry (0: unknown).
std::optional<JsonEntry> MakeJsonEntry(const Json::Value& value, size_t sizeHint = 0) {
    JsonEntry json;
    json.entry.reserve(sizeHint);
    json.entry = JsonEntry::kPrefix;
    if (!AppendJson(value, SettingsStore::kMaxJsonDepth, json.entry)) return std::nullopt;
    json.entry += '}';
    return json;
}

// A value's text as this store made it; it always parses.
Json::Value ParseStored(std::string_view compact) {
    Json::Value value;
    if (!ParseStrict(compact, value)) throw std::runtime_error("stored JSON does not parse");
    return value;
}

// The file's entry for a string or a bool: {"string": text} | {"bool": flag}.
// A JSON value carries its entry itself.
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

ValuePtr MakeValue(Value value) {
    std::string entry = std::holds_alternative<JsonEntry>(value) ? std::string() : EntryOf(value);
    return std::make_shared<const StoredValue>(StoredValue{std::move(value), std::move(entry)});
}

const std::string& EntryText(const StoredValue& stored) {
    if (const auto* json = std::get_if<JsonEntry>(&stored.value)) return json->entry;
    if (stored.entry.empty()) stored.entry = EntryOf(stored.value);
    return stored.entry;
}

const std::string& TextOf(const Node& node);

// Appends `key`: {name: text of member, ...} for the members of one map.
template <class Members, class TextOfMember>
void AppendMembers(const char* key, const Members& members, TextOfMember textOf, std::string& out) {
    AppendQuoted(key, out);
    out += ":{";
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

// Appends `node` in the file's form: {"children": {name: node},
// "values": {name: entry}}, each part left out when empty. Children and
// values come from their cached text.
void AppendNode(const Node& node, std::string& out) {
    // Sized first so that the subtree's text is copied once.
    size_t size = 32;
    for (const auto& [name, child] : node.children) size += 3 * name.size() + 4 + TextOf(*child).size();
    for (const auto& [name, value] : node.values) size += 3 * name.size() + 4 + EntryText(*value).size();
    out.reserve(out.size() + size);
    out += '{';
    if (!node.children.empty()) AppendMembers(kChildrenKey, node.children, TextOf, out);
    if (!node.values.empty()) {
        if (!node.children.empty()) out += ',';
        AppendMembers(kValuesKey, node.values, EntryText, out);
    }
    out += '}';
}

// The node's text, made the first time it is asked for (and kept only when
// made in full).
const std::string& TextOf(const Node& node) {
    if (node.text.empty()) {
        std::string text;
        AppendNode(node, text);
        node.text = std::move(text);
    }
    return node.text;
}

// Reads a value's entry ({"string": text} and so on); null on failure, with
// `why` saying what is wrong with the value `at`.
ValuePtr ValueFromEntry(const Json::Value& entry, const std::wstring& at, std::wstring& why) {
    why.clear();
    if (!entry.isObject() || entry.size() != 1) {
        why = at + L" is not one typed entry";
    } else if (entry.isMember(kStringKey)) {
        const Json::Value& text = entry[kStringKey];
        std::optional<std::wstring> wide;
        if (text.isString()) wide = os::Utf8ToWide(text.asString());
        if (wide) return std::make_shared<const StoredValue>(StoredValue{std::move(*wide), {}});
        why = at + L": the string is not valid text";
    } else if (entry.isMember(kBoolKey)) {
        if (entry[kBoolKey].isBool())
            return std::make_shared<const StoredValue>(StoredValue{entry[kBoolKey].asBool(), {}});
        why = at + L": not a bool";
    } else if (entry.isMember(kJsonKey)) {
        if (auto json = MakeJsonEntry(entry[kJsonKey]))
            return std::make_shared<const StoredValue>(StoredValue{std::move(*json), {}});
        why = at + L": JSON the store would refuse";
    } else {
        why = at + L" has no known type";
    }
    return nullptr;
}

// Reads a node written by AppendNode; on failure `why` says what is wrong where.
NodePtr FromJson(const Json::Value& in, const std::wstring& where, size_t depth, std::wstring& why) {
    auto fail = [&](const std::wstring& what) {
        why = where + L": " + what;
        return nullptr;
    };
    if (!in.isObject()) return fail(L"a node is not an object");
    if (depth > SettingsStore::kMaxDepth) return fail(L"the tree is deeper than the store allows");
    auto node = std::make_shared<Node>();
    for (const auto& key : in.getMemberNames()) {
        if (key != kValuesKey && key != kChildrenKey)
            return fail(L"unknown member \"" + os::Utf8ToWideLossy(key) + L"\"");
    }
    const Json::Value& values = in[kValuesKey];
    if (!values.isNull() && !values.isObject()) return fail(L"\"values\" is not an object");
    for (auto it = values.begin(); it != values.end(); ++it) {
        const auto name = os::Utf8ToWide(it.name());
        if (!name || name->find(L'\0') != std::wstring::npos) return fail(L"a value name is not valid text");
        ValuePtr value = ValueFromEntry(*it, L"value \"" + *name + L"\"", why);
        if (!value) return fail(why);
        node->values.emplace(*name, std::move(value));
    }
    const Json::Value& children = in[kChildrenKey];
    if (!children.isNull() && !children.isObject()) return fail(L"\"children\" is not an object");
    for (auto it = children.begin(); it != children.end(); ++it) {
        const auto name = os::Utf8ToWide(it.name());
        if (!name || !ValidChildName(*name)) return fail(L"a child name is not a valid name");
        NodePtr child = FromJson(*it, where == L"/" ? L"/" + *name : where + L"/" + *name, depth + 1, why);
        if (!child) return nullptr;
        node->children.emplace(*name, std::move(child));
    }
    return node;
}

// A copy of `old` (or a new node) with `changes` applied at `segments[i...]`;
// every subtree off that path is shared, not copied.
NodePtr WithChanges(const Node* old, const std::vector<std::wstring>& segments, size_t i,
                    const SettingsStore::Changes& changes, NodePtr& changed);

}  // namespace

// One open node. Reading nodes answer from `base_`, the committed snapshot;
// writing nodes lay `changes_` over it.
class SettingsStore::OpenNode final : public IEPSettingsNode {
public:
    OpenNode(SettingsStore& store, std::vector<std::wstring> segments, NodePtr base, bool writable)
        : store_(store), segments_(std::move(segments)), base_(std::move(base)), writable_(writable) {}

    int32_t GetString(const wchar_t* name, std::wstring& value) override {
        return Guarded([&] {
            const Value* found = nullptr;
            if (const int32_t result = Find(name, found)) return result;
            const auto* text = std::get_if<std::wstring>(found);
            if (!text) return status::kInvalidDataType;
            value = *text;
            return status::kSuccess;
        });
    }
    int32_t SetString(const wchar_t* name, const std::wstring& value) override {
        return Guarded([&] {
            if (!IsText(value)) return status::kInvalidParameter;
            return Set(name, Value(value));
        });
    }
    int32_t GetBool(const wchar_t* name, bool& value) override {
        return Guarded([&] {
            const Value* found = nullptr;
            if (const int32_t result = Find(name, found)) return result;
            const auto* flag = std::get_if<bool>(found);
            if (!flag) return status::kInvalidDataType;
            value = *flag;
            return status::kSuccess;
        });
    }
    int32_t SetBool(const wchar_t* name, bool value) override {
        return Guarded([&] { return Set(name, Value(value)); });
    }
    int32_t GetJson(const wchar_t* name, Json::Value& value) override {
        return Guarded([&] {
            const Value* found = nullptr;
            if (const int32_t result = Find(name, found)) return result;
            if (const auto* text = std::get_if<std::wstring>(found))
                value = Json::Value(os::WideToUtf8Lossy(*text));
            else if (const auto* flag = std::get_if<bool>(found))
                value = Json::Value(*flag);
            else
                value = ParseStored(std::get<JsonEntry>(*found).compact());
            return status::kSuccess;
        });
    }
    int32_t SetJson(const wchar_t* name, const Json::Value& value) override {
        return Guarded([&] {
            // A value mostly replaces one of about its size: its text is
            // written at once into room for that much.
            const Value* old = nullptr;
            const auto* oldJson =
                ValidValueName(name) && Find(name, old) == status::kSuccess ? std::get_if<JsonEntry>(old) : nullptr;
            auto json = MakeJsonEntry(value, oldJson ? oldJson->entry.size() + oldJson->entry.size() / 8 : 0);
            if (!json) return status::kInvalidParameter;
            return Set(name, Value(std::move(*json)));
        });
    }
    int32_t GetChildNames(std::vector<std::wstring>& names) override {
        return Guarded([&] {
            std::vector<std::wstring> listed;
            if (base_) {
                for (const auto& [name, child] : base_->children)
                    if (!changes_.removed.contains(name)) listed.push_back(name);
            }
            names = std::move(listed);
            return status::kSuccess;
        });
    }
    int32_t RemoveChild(const wchar_t* name) override {
        return Guarded([&] {
            if (!writable_) return status::kAccessDenied;
            if (!name || !ValidChildName(name)) return status::kInvalidParameter;
            const std::wstring child(name);
            if (!base_ || !base_->children.contains(child) || changes_.removed.contains(child))
                return status::kNotFound;
            changes_.removed.insert(child);
            return status::kSuccess;
        });
    }
    int32_t Commit() override {
        return Guarded([&] {
            if (!writable_) return status::kAccessDenied;
            NodePtr committed;
            const int32_t result = store_.Apply(segments_, changes_, committed);
            if (result != status::kSuccess) return result;
            base_ = std::move(committed);
            changes_ = Changes();
            return status::kSuccess;
        });
    }
    void Release() override { delete this; }

private:
    int32_t Find(const wchar_t* name, const Value*& found) const {
        if (!ValidValueName(name)) return status::kInvalidParameter;
        const std::wstring key(name);
        if (auto it = changes_.values.find(key); it != changes_.values.end()) {
            found = &it->second->value;
            return status::kSuccess;
        }
        if (base_) {
            if (auto it = base_->values.find(key); it != base_->values.end()) {
                found = &it->second->value;
                return status::kSuccess;
            }
        }
        return status::kNotFound;
    }
    int32_t Set(const wchar_t* name, Value value) {
        if (!writable_) return status::kAccessDenied;
        if (!ValidValueName(name)) return status::kInvalidParameter;
        changes_.values.insert_or_assign(std::wstring(name), MakeValue(std::move(value)));
        return status::kSuccess;
    }

    SettingsStore& store_;
    const std::vector<std::wstring> segments_;
    NodePtr base_;  // null for a writing node whose node is not in the tree yet
    const bool writable_;
    Changes changes_;
};

namespace {

NodePtr WithChanges(const Node* old, const std::vector<std::wstring>& segments, size_t i,
                    const SettingsStore::Changes& changes, NodePtr& changed) {
    // The node's parts are copied (their entries are shared), not its text:
    // the copy is about to differ from it.
    auto copy = std::make_shared<Node>();
    if (old) {
        copy->values = old->values;
        copy->children = old->children;
    }
    if (i == segments.size()) {
        for (const auto& [name, value] : changes.values) copy->values.insert_or_assign(name, value);
        for (const auto& name : changes.removed) copy->children.erase(name);
        changed = copy;
        return copy;
    }
    const auto it = copy->children.find(segments[i]);
    const Node* child = it == copy->children.end() ? nullptr : it->second.get();
    copy->children.insert_or_assign(segments[i], WithChanges(child, segments, i + 1, changes, changed));
    return copy;
}

// The journal. Each line is {"check":"<FNV-1a of C, 8 hex digits>","commit":C}
// where C is {"at":[segment, ...],"values":{name: entry, ...},"removed":[name, ...]}:
// the changes one commit applied to the node at "at". A line of the tree
// itself never starts that way (the tree's text has no line breaks inside
// strings, and its own lines start with "{" alone or with whitespace), so
// the journal starts at the first line that does.
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

std::string RecordOf(const std::vector<std::wstring>& segments, const SettingsStore::Changes& changes) {
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

// Reads one journal line (without its line break) into `segments` and
// `changes`; false with `why` when it is not one.
bool ParseRecord(std::string_view line, std::vector<std::wstring>& segments, SettingsStore::Changes& changes,
                 std::wstring& why) {
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
    if (!ParseStrict(commit, parsed) || !parsed.isObject()) {
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

// Applies the journal `text` to `root`. The lines are numbered from
// `firstLine` + 1 for messages.
struct JournalRead {
    bool damaged = false;      // a line other than the last is not a commit: `why` says which
    bool droppedTail = false;  // the last line was cut short and is ignored
};

JournalRead ReadJournal(std::string_view text, size_t firstLine, NodePtr& root, std::wstring& why) {
    JournalRead read;
    size_t number = firstLine;
    while (!text.empty()) {
        ++number;
        const size_t end = text.find('\n');
        const bool last = end == std::string_view::npos || end + 1 == text.size();
        std::vector<std::wstring> segments;
        SettingsStore::Changes changes;
        std::wstring problem;
        const bool complete = end != std::string_view::npos;
        if (!complete || !ParseRecord(text.substr(0, end), segments, changes, problem)) {
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

}  // namespace

SettingsStore::SettingsStore(std::wstring path, NodePtr root) : path_(std::move(path)), root_(std::move(root)) {}

SettingsStore::~SettingsStore() = default;

std::unique_ptr<SettingsStore> SettingsStore::Open(const std::wstring& path, std::wstring& error) {
    error.clear();
    std::string bytes;
    switch (os::ReadWholeFile(path, bytes, &error)) {
        case os::ReadResult::kMissing:
            return std::unique_ptr<SettingsStore>(new SettingsStore(path, std::make_shared<Node>()));
        case os::ReadResult::kFailed:
            error = L"settings file " + path + L" cannot be read: " + error;
            return nullptr;
        case os::ReadResult::kRead:
            break;
    }
    const std::string_view all(bytes);
    const size_t journalStart = FindJournal(all);
    const std::string_view tree = all.substr(0, journalStart);
    Json::Value document;
    std::string errors;
    if (!ParseStrict(tree, document, &errors)) {
        error = L"settings file " + path + L" is not valid JSON: " + os::Utf8ToWideLossy(errors);
        while (!error.empty() && (error.back() == L'\n' || error.back() == L' ')) error.pop_back();
        return nullptr;
    }
    std::wstring why;
    NodePtr root = FromJson(document, L"/", 0, why);
    if (!root) {
        error = L"settings file " + path + L" does not hold a settings tree: " + why;
        return nullptr;
    }
    const JournalRead journal = ReadJournal(all.substr(journalStart), LineCount(tree), root, why);
    if (journal.damaged) {
        error = L"settings file " + path + L" has a damaged journal: " + why;
        return nullptr;
    }
    std::unique_ptr<SettingsStore> store(new SettingsStore(path, std::move(root)));
    store->treeBytes_ = tree.size();
    store->journalBytes_ = all.size() - journalStart;
    // A tree without its final line break cannot take a journal line after it.
    store->rewriteNext_ = journal.droppedTail || tree.empty() || tree.back() != '\n';
    return store;
}

std::wstring SettingsStore::LastCommitError() const {
    std::lock_guard lock(mutex_);
    return lastCommitError_;
}

void* SettingsStore::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, IEPSettings::iid))
        return static_cast<IEPSettings*>(this);
    return nullptr;
}

int32_t SettingsStore::OpenForRead(const wchar_t* path, IEPSettingsNode** node) {
    if (!node) return status::kInvalidParameter;
    *node = nullptr;
    return Guarded([&] {
        std::vector<std::wstring> segments;
        if (!ParsePath(path, segments)) return status::kInvalidParameter;
        NodePtr found = Find(segments);
        if (!found) return status::kNotFound;
        *node = new OpenNode(*this, std::move(segments), std::move(found), false);
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenForWrite(const wchar_t* path, IEPSettingsNode** node) {
    if (!node) return status::kInvalidParameter;
    *node = nullptr;
    return Guarded([&] {
        std::vector<std::wstring> segments;
        if (!ParsePath(path, segments)) return status::kInvalidParameter;
        NodePtr found = Find(segments);
        *node = new OpenNode(*this, std::move(segments), std::move(found), true);
        return status::kSuccess;
    });
}

SettingsStore::NodePtr SettingsStore::Find(const std::vector<std::wstring>& segments) const {
    std::lock_guard lock(mutex_);
    return FindLocked(segments);
}

SettingsStore::NodePtr SettingsStore::FindLocked(const std::vector<std::wstring>& segments) const {
    NodePtr node = root_;
    for (const auto& segment : segments) {
        const auto it = node->children.find(segment);
        if (it == node->children.end()) return nullptr;
        node = it->second;
    }
    return node;
}

int32_t SettingsStore::Apply(const std::vector<std::wstring>& segments, const Changes& changes, NodePtr& committed) {
    std::lock_guard lock(mutex_);
    // Nothing to write for a node that exists and did not change.
    if (changes.values.empty() && changes.removed.empty()) {
        if (NodePtr existing = FindLocked(segments)) {
            committed = std::move(existing);
            return status::kSuccess;
        }
    }
    NodePtr changed;
    NodePtr root = WithChanges(root_.get(), segments, 0, changes, changed);
    std::wstring error;
    if (!Write(*root, RecordOf(segments, changes), error)) {
        lastCommitError_ = error;
        return status::kFunctionFailed;
    }
    root_ = std::move(root);
    committed = std::move(changed);
    return status::kSuccess;
}

bool SettingsStore::Write(const Node& root, const std::string& record, std::wstring& error) {
    if (!rewriteNext_ && journalBytes_ + record.size() <= std::max(kJournalFloor, 2 * treeBytes_)) {
        if (os::AppendDurably(path_, record, &error)) {
            journalBytes_ += record.size();
            return true;
        }
        // The file may now end in part of the line: the next commit writes
        // the whole tree instead of appending after it.
        rewriteNext_ = true;
        return false;
    }
    // Only the nodes on the changed path are written anew; the root's text is
    // the file itself and is not kept.
    std::string bytes;
    AppendNode(root, bytes);
    bytes += '\n';
    if (!os::WriteFileAtomically(path_, bytes, &error)) return false;
    treeBytes_ = bytes.size();
    journalBytes_ = 0;
    rewriteNext_ = false;
    return true;
}

}  // namespace host
