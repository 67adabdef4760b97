#pragma once
// The settings tree as the store keeps it in memory: immutable nodes that
// share their unchanged subtrees and values, the changes a writing node
// gathers, and the rules for names. A committed node is never changed (only
// its cached text is filled in, under the store's mutex), so any thread may
// read one it holds.
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace host::settings {

// The order of Windows' ordinal comparison: UTF-16 code units, the same on
// both platforms.
struct OrdinalLess {
    bool operator()(const std::wstring& a, const std::wstring& b) const;
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

// A value with its entry as written to the file ({"string": ...} and so on).
// Immutable once made, so the tree's nodes and a writing node's changes share
// it. `entry` is made with a string or bool when it is set; such values read
// from the file leave it empty and get it the first time their node is
// written, under the store's mutex. A JSON value carries its entry itself.
struct StoredValue {
    Value value;
    mutable std::string entry;
};
using ValuePtr = std::shared_ptr<const StoredValue>;

struct Node;
using NodePtr = std::shared_ptr<const Node>;

// `text` is the node's subtree as written to the file, kept so that a commit
// only writes anew the nodes it changed and copies the text of all others.
// Empty until first needed; it is only read or filled under the store's
// mutex (nodes are immutable once committed, so it never goes stale).
struct Node {
    std::map<std::wstring, ValuePtr> values;
    std::map<std::wstring, NodePtr, OrdinalLess> children;
    mutable std::string text;
};

// A writing node's pending changes: values set and children removed.
struct Changes {
    std::map<std::wstring, ValuePtr> values;
    std::set<std::wstring> removed;
};

// Whether `text` can be stored as UTF-8 (no unpaired surrogate).
bool IsText(const std::wstring& text);
// Value names are any text, the empty name included.
bool ValidValueName(const wchar_t* name);
// Child names are text, not empty, without '/' or NUL.
bool ValidChildName(const std::wstring& name);

// A copy of `old` (or a new node when null) with `changes` applied to the
// node at `segments[i...]`, made with its missing parents; every subtree off
// that path is shared, not copied. `changed` receives the changed node.
NodePtr WithChanges(const Node* old, const std::vector<std::wstring>& segments, size_t i, const Changes& changes,
                    NodePtr& changed);

}  // namespace host::settings
