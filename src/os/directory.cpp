#include "os/directory.h"

#include <cwctype>
#include <optional>

namespace os {
namespace {

bool IsBlank(wchar_t c) noexcept { return c == L' '; }
bool IsSeparator(wchar_t c) noexcept { return c == L',' || c == L';'; }
bool IsTypeChar(wchar_t c) noexcept { return std::iswalnum(static_cast<std::wint_t>(c)) || c == L'-' || c == L'.'; }

// A position in the text being parsed; every read stays before `end`.
struct Cursor {
    const wchar_t* text;
    size_t end;
    size_t at = 0;

    bool More() const noexcept { return at < end; }
    bool At(wchar_t c) const noexcept { return More() && text[at] == c; }
    void SkipBlanks() noexcept {
        while (More() && IsBlank(text[at])) ++at;
    }
};

// A quoted value, from its opening quote through the closing one (escapes
// kept), then the blanks before the separator. The end of the value; nullopt
// when the quote is not closed or more than blanks follow it.
std::optional<size_t> ReadQuotedValue(Cursor& c) {
    ++c.at;
    while (c.More() && c.text[c.at] != L'"') {
        if (c.text[c.at] == L'\\' && ++c.at == c.end) return std::nullopt;
        ++c.at;
    }
    if (!c.More()) return std::nullopt;  // no closing quote
    const size_t valueEnd = ++c.at;
    c.SkipBlanks();
    if (c.More() && !IsSeparator(c.text[c.at])) return std::nullopt;
    return valueEnd;
}

// An unquoted value, up to the separator. Trailing blanks are not part of
// it unless escaped. The end of the value; nullopt for a quote inside it or
// an escape with nothing after it.
std::optional<size_t> ReadPlainValue(Cursor& c) {
    size_t valueEnd = c.at;
    while (c.More() && !IsSeparator(c.text[c.at])) {
        const wchar_t ch = c.text[c.at++];
        if (ch == L'"') return std::nullopt;
        if (ch == L'\\') {
            if (!c.More()) return std::nullopt;
            valueEnd = ++c.at;
        } else if (!IsBlank(ch)) {
            valueEnd = c.at;
        }
    }
    return valueEnd;
}

}  // namespace

uint32_t ParseRdn(const wchar_t** dn, size_t* length, RdnPart* part) {
    if (!dn || !length || !part || (!*dn && *length != 0)) return kInvalidDnSyntax;
    Cursor c{*dn, *length};
    c.SkipBlanks();

    const size_t typeBegin = c.at;
    while (c.More() && IsTypeChar(c.text[c.at])) ++c.at;
    const size_t typeEnd = c.at;
    c.SkipBlanks();
    if (typeEnd == typeBegin || !c.At(L'=')) return kInvalidDnSyntax;
    ++c.at;
    c.SkipBlanks();

    const size_t valueBegin = c.at;
    const std::optional<size_t> valueEnd = c.At(L'"') ? ReadQuotedValue(c) : ReadPlainValue(c);
    if (!valueEnd) return kInvalidDnSyntax;
    if (c.More()) {
        ++c.at;  // the separator and the blanks after it
        c.SkipBlanks();
    }

    part->type = c.text + typeBegin;
    part->typeLength = typeEnd - typeBegin;
    part->value = c.text + valueBegin;
    part->valueLength = *valueEnd - valueBegin;
    *dn = c.text + c.at;
    *length = c.end - c.at;
    return 0;
}

}  // namespace os
