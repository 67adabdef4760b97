#include "os/directory.h"

#include <cwctype>

namespace os {
namespace {

bool IsBlank(wchar_t c) noexcept { return c == L' '; }
bool IsSeparator(wchar_t c) noexcept { return c == L',' || c == L';'; }
bool IsTypeChar(wchar_t c) noexcept { return std::iswalnum(static_cast<std::wint_t>(c)) || c == L'-' || c == L'.'; }

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): over the limit; to be split
uint32_t ParseRdn(const wchar_t** dn, size_t* length, RdnPart* part) {
    if (!dn || !length || !part || (!*dn && *length != 0)) return kInvalidDnSyntax;
    const wchar_t* text = *dn;
    const size_t end = *length;
    size_t i = 0;
    while (i < end && IsBlank(text[i])) ++i;

    const size_t typeBegin = i;
    while (i < end && IsTypeChar(text[i])) ++i;
    const size_t typeEnd = i;
    while (i < end && IsBlank(text[i])) ++i;
    if (typeEnd == typeBegin || i == end || text[i] != L'=') return kInvalidDnSyntax;
    ++i;
    while (i < end && IsBlank(text[i])) ++i;

    const size_t valueBegin = i;
    size_t valueEnd = i;
    if (i < end && text[i] == L'"') {
        ++i;
        while (i < end && text[i] != L'"') {
            if (text[i] == L'\\' && ++i == end) return kInvalidDnSyntax;
            ++i;
        }
        if (i == end) return kInvalidDnSyntax;  // no closing quote
        valueEnd = ++i;
        while (i < end && IsBlank(text[i])) ++i;
        if (i < end && !IsSeparator(text[i])) return kInvalidDnSyntax;
    } else {
        // Trailing blanks are not part of the value unless escaped.
        while (i < end && !IsSeparator(text[i])) {
            if (text[i] == L'\\') {
                if (++i == end) return kInvalidDnSyntax;
                ++i;
                valueEnd = i;
                continue;
            }
            if (text[i] == L'"') return kInvalidDnSyntax;
            ++i;
            if (!IsBlank(text[i - 1])) valueEnd = i;
        }
    }
    if (i < end) {
        ++i;  // the separator and the blanks after it
        while (i < end && IsBlank(text[i])) ++i;
    }

    part->type = text + typeBegin;
    part->typeLength = typeEnd - typeBegin;
    part->value = text + valueBegin;
    part->valueLength = valueEnd - valueBegin;
    *dn = text + i;
    *length = end - i;
    return 0;
}

}  // namespace os
