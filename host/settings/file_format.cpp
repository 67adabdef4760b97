#include "host/settings/file_format.h"

#include <utility>

#include "host/settings/json_text.h"
#include "host/settings/settings_store.h"
#include "host/settings/value_entry.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace host::settings {

namespace {

constexpr const char* kValuesKey = "values";
constexpr const char* kChildrenKey = "children";

const std::string& TextOf(const Node& node);

// Appends `key`: {name: text of member, ...} for the members of one map.
template <class Members, class TextOfMember>
void AppendMembers(const char* key, const Members& members, TextOfMember textOf, std::string& out) {
    AppendQuoted(key, out);
    out += ':';
    AppendObject(members, textOf, out);
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

}  // namespace

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

os::Expected<NodePtr> NodeFromJson(const Json::Value& in, const std::wstring& where, size_t depth) {
    auto fail = [&](const std::wstring& what) {
        return os::Status::Failure(qv::status::kInvalidDataType, where + L": " + what);
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
        os::Expected<ValuePtr> value = ValueFromEntry(*it, L"value \"" + *name + L"\"");
        if (!value) return value.status().WithContext(where);
        node->values.emplace(*name, std::move(*value));
    }
    const Json::Value& children = in[kChildrenKey];
    if (!children.isNull() && !children.isObject()) return fail(L"\"children\" is not an object");
    for (auto it = children.begin(); it != children.end(); ++it) {
        const auto name = os::Utf8ToWide(it.name());
        if (!name || !ValidChildName(*name)) return fail(L"a child name is not a valid name");
        os::Expected<NodePtr> child = NodeFromJson(*it, where == L"/" ? L"/" + *name : where + L"/" + *name, depth + 1);
        if (!child) return child.status();
        node->children.emplace(*name, std::move(*child));
    }
    return NodePtr(std::move(node));
}

}  // namespace host::settings
