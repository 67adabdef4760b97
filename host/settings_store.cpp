#include "host/settings_store.h"

#include <algorithm>
#include <new>
#include <set>
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
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](wchar_t x, wchar_t y) {
            return OrdinalWeight(x) < OrdinalWeight(y);
        });
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

}  // namespace

struct SettingsStore::Node {
    std::map<std::wstring, Value> values;
    std::map<std::wstring, NodePtr, OrdinalLess> children;
};

struct SettingsStore::Changes {
    std::map<std::wstring, Value> values;
    std::set<std::wstring> removed;  // children
};

namespace {

using Node = SettingsStore::Node;
using NodePtr = SettingsStore::NodePtr;

Json::Value ToJson(const Node& node) {
    Json::Value out(Json::objectValue);
    if (!node.values.empty()) {
        Json::Value& values = out[kValuesKey] = Json::Value(Json::objectValue);
        for (const auto& [name, value] : node.values) {
            Json::Value& entry = values[os::WideToUtf8Lossy(name)] = Json::Value(Json::objectValue);
            if (const auto* text = std::get_if<std::wstring>(&value))
                entry[kStringKey] = os::WideToUtf8Lossy(*text);
            else if (const auto* flag = std::get_if<bool>(&value))
                entry[kBoolKey] = *flag;
            else
                entry[kJsonKey] = std::get<Json::Value>(value);
        }
    }
    if (!node.children.empty()) {
        Json::Value& children = out[kChildrenKey] = Json::Value(Json::objectValue);
        for (const auto& [name, child] : node.children) children[os::WideToUtf8Lossy(name)] = ToJson(*child);
    }
    return out;
}

// Reads a node written by ToJson; on failure `why` says what is wrong where.
NodePtr FromJson(const Json::Value& in, const std::wstring& where, size_t depth, std::wstring& why) {
    auto fail = [&](const std::wstring& what) {
        why = where + L": " + what;
        return nullptr;
    };
    if (!in.isObject()) return fail(L"a node is not an object");
    if (depth > SettingsStore::kMaxDepth) return fail(L"the tree is deeper than the store allows");
    auto node = std::make_shared<Node>();
    for (const auto& key : in.getMemberNames()) {
        if (key != kValuesKey && key != kChildrenKey) return fail(L"unknown member \"" + os::Utf8ToWideLossy(key) + L"\"");
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
            node->values.emplace(*name, std::move(*wide));
        } else if (entry.isMember(kBoolKey)) {
            if (!entry[kBoolKey].isBool()) return fail(at + L": not a bool");
            node->values.emplace(*name, entry[kBoolKey].asBool());
        } else if (entry.isMember(kJsonKey)) {
            if (!StorableJson(entry[kJsonKey], SettingsStore::kMaxJsonDepth)) return fail(at + L": JSON the store would refuse");
            node->values.emplace(*name, entry[kJsonKey]);
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
            found = &it->second;
            return status::kSuccess;
        }
        if (base_) {
            if (auto it = base_->values.find(key); it != base_->values.end()) {
                found = &it->second;
                return status::kSuccess;
            }
        }
        return status::kNotFound;
    }
    int32_t Set(const wchar_t* name, Value value) {
        if (!writable_) return status::kAccessDenied;
        if (!ValidValueName(name)) return status::kInvalidParameter;
        changes_.values.insert_or_assign(std::wstring(name), std::move(value));
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
    auto copy = old ? std::make_shared<Node>(*old) : std::make_shared<Node>();
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
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    const std::string bytes = Json::writeString(builder, ToJson(*root)) + "\n";
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
