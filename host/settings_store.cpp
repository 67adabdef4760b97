#include "host/settings_store.h"

#include <algorithm>
#include <new>
#include <set>
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

// A stored value; the alternative is its type.
using Value = std::variant<std::wstring, bool, Json::Value>;

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

// Whether `value` nests no deeper than `depth` levels and all its text
// (strings and member names) is well-formed UTF-8.
bool StorableJson(const Json::Value& value, int depth) {
    if (depth <= 0) return false;
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        return value.getString(&begin, &end) && os::Utf8ToWide(std::string_view(begin, end - begin)).has_value();
    }
    if (value.isArray()) {
        for (const auto& item : value)
            if (!StorableJson(item, depth - 1)) return false;
    } else if (value.isObject()) {
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!os::Utf8ToWide(it.name()) || !StorableJson(*it, depth - 1)) return false;
        }
    }
    return true;
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
// it. `entry` is made with the value when it is set; values read from the
// file leave it empty and get it the first time their node is written, under
// the store's mutex.
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
void AppendQuoted(std::string_view utf8, std::string& out) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    size_t plain = 0;  // start of the run not yet copied
    for (size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
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
}

void AppendQuoted(const std::wstring& text, std::string& out) { AppendQuoted(os::WideToUtf8Lossy(text), out); }

// `value` in compact JSON.
std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["commentStyle"] = "None";
    return Json::writeString(builder, value);
}

// The file's entry for `value`: {"string": text} | {"bool": flag} | {"json": any}.
std::string EntryOf(const Value& value) {
    std::string entry = "{";
    if (const auto* text = std::get_if<std::wstring>(&value)) {
        AppendQuoted(kStringKey, entry);
        entry += ':';
        AppendQuoted(*text, entry);
    } else if (const auto* flag = std::get_if<bool>(&value)) {
        AppendQuoted(kBoolKey, entry);
        entry += *flag ? ":true" : ":false";
    } else {
        AppendQuoted(kJsonKey, entry);
        entry += ':';
        entry += CompactJson(std::get<Json::Value>(value));
    }
    entry += '}';
    return entry;
}

ValuePtr MakeValue(Value value) {
    std::string entry = EntryOf(value);
    return std::make_shared<const StoredValue>(StoredValue{std::move(value), std::move(entry)});
}

const std::string& EntryText(const StoredValue& stored) {
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
        const std::wstring at = L"value \"" + *name + L"\"";
        const Json::Value& entry = *it;
        if (!entry.isObject() || entry.size() != 1) return fail(at + L" is not one typed entry");
        if (entry.isMember(kStringKey)) {
            const Json::Value& text = entry[kStringKey];
            std::optional<std::wstring> wide;
            if (text.isString()) wide = os::Utf8ToWide(text.asString());
            if (!wide) return fail(at + L": the string is not valid text");
            node->values.emplace(*name, std::make_shared<const StoredValue>(StoredValue{std::move(*wide), {}}));
        } else if (entry.isMember(kBoolKey)) {
            if (!entry[kBoolKey].isBool()) return fail(at + L": not a bool");
            node->values.emplace(*name, std::make_shared<const StoredValue>(StoredValue{entry[kBoolKey].asBool(), {}}));
        } else if (entry.isMember(kJsonKey)) {
            if (!StorableJson(entry[kJsonKey], SettingsStore::kMaxJsonDepth))
                return fail(at + L": JSON the store would refuse");
            node->values.emplace(*name, std::make_shared<const StoredValue>(StoredValue{entry[kJsonKey], {}}));
        } else {
            return fail(at + L" has no known type");
        }
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
                value = std::get<Json::Value>(*found);
            return status::kSuccess;
        });
    }
    int32_t SetJson(const wchar_t* name, const Json::Value& value) override {
        return Guarded([&] {
            if (!StorableJson(value, kMaxJsonDepth)) return status::kInvalidParameter;
            return Set(name, Value(value));
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
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    std::string errors;
    if (!reader->parse(bytes.data(), bytes.data() + bytes.size(), &document, &errors)) {
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
    return std::unique_ptr<SettingsStore>(new SettingsStore(path, std::move(root)));
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
    NodePtr changed;
    NodePtr root = WithChanges(root_.get(), segments, 0, changes, changed);
    // Only the nodes on the changed path are written anew; the root's text is
    // the file itself and is not kept.
    std::string bytes;
    AppendNode(*root, bytes);
    bytes += '\n';
    std::wstring error;
    if (!os::WriteFileAtomically(path_, bytes, &error)) {
        lastCommitError_ = error;
        return status::kFunctionFailed;
    }
    root_ = std::move(root);
    committed = std::move(changed);
    return status::kSuccess;
}

}  // namespace host
