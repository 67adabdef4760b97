#include "host/settings/tree.h"

#include <algorithm>

#include "os/utf8.h"

namespace host::settings {

namespace {

// Where wchar_t holds whole code points, those above U+FFFF (surrogate pairs
// in UTF-16, 0xD800-0xDBFF first) sort after U+D7FF and before U+E000.
uint32_t OrdinalWeight(wchar_t c) {
    const auto u = static_cast<uint32_t>(c);  // NOLINT(bugprone-signed-char-misuse): a wchar_t, no char
    if constexpr (sizeof(wchar_t) == 2) {
        return u;
    } else {
        if (u < 0xE000) return u;
        if (u <= 0xFFFF) return u + 0x100000;
        return 0xE000 + (u - 0x10000);
    }
}

}  // namespace

bool OrdinalLess::operator()(const std::wstring& a, const std::wstring& b) const {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](wchar_t x, wchar_t y) { return OrdinalWeight(x) < OrdinalWeight(y); });
}

bool IsText(const std::wstring& text) { return os::WideToUtf8(text).has_value(); }

bool ValidValueName(const wchar_t* name) { return name && IsText(name); }

bool ValidChildName(const std::wstring& name) {
    return !name.empty() && name.find(L'/') == std::wstring::npos && name.find(L'\0') == std::wstring::npos &&
           IsText(name);
}

NodePtr WithChanges(const Node* old, const std::vector<std::wstring>& segments, size_t i, const Changes& changes,
                    NodePtr& changed) {
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

}  // namespace host::settings
