#include "os/utf8.h"

#include <cstdint>

namespace os {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Decodes one code point at text[i]; advances i. Null on malformed input
// (i is still advanced past at least one byte).
std::optional<char32_t> DecodeUtf8(std::string_view text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
    const uint8_t lead = byte(i++);
    if (lead < 0x80) return lead;
    int extra;
    char32_t cp;
    char32_t minimum;
    if ((lead & 0xE0) == 0xC0) {
        extra = 1;
        cp = lead & 0x1F;
        minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2;
        cp = lead & 0x0F;
        minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3;
        cp = lead & 0x07;
        minimum = 0x10000;
    } else
        return std::nullopt;
    for (int k = 0; k < extra; ++k) {
        if (i >= text.size() || (byte(i) & 0xC0) != 0x80) return std::nullopt;
        cp = (cp << 6) | (byte(i++) & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || IsSurrogate(cp)) return std::nullopt;
    return cp;
}

void AppendWide(std::wstring& out, char32_t cp) {
    if constexpr (sizeof(wchar_t) == 2) {
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
            return;
        }
    }
    out.push_back(static_cast<wchar_t>(cp));
}

// Decodes one code point of a wide string at text[i]; advances i.
std::optional<char32_t> DecodeWide(std::wstring_view text, size_t& i) {
    char32_t c = static_cast<char32_t>(text[i++]);
    if constexpr (sizeof(wchar_t) == 2) {
        c &= 0xFFFF;
        if (c >= 0xD800 && c <= 0xDBFF) {
            if (i >= text.size()) return std::nullopt;
            const char32_t low = static_cast<char32_t>(text[i]) & 0xFFFF;
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            ++i;
            return 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        }
    }
    if (IsSurrogate(c) || c > 0x10FFFF) return std::nullopt;
    return c;
}

template <bool Lossy>
std::optional<std::wstring> ToWide(std::string_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto cp = DecodeUtf8(text, i);
        if (!cp && !Lossy) return std::nullopt;
        AppendWide(out, cp.value_or(kReplacement));
    }
    return out;
}

template <bool Lossy>
std::optional<std::string> ToUtf8(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto cp = DecodeWide(text, i);
        if (!cp && !Lossy) return std::nullopt;
        AppendUtf8(out, cp.value_or(kReplacement));
    }
    return out;
}

}  // namespace

bool IsUtf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        if (static_cast<uint8_t>(text[i]) < 0x80) {
            ++i;  // the common case, without decoding
            continue;
        }
        if (!DecodeUtf8(text, i)) return false;
    }
    return true;
}

std::optional<std::wstring> Utf8ToWide(std::string_view text) { return ToWide<false>(text); }
std::optional<std::string> WideToUtf8(std::wstring_view text) { return ToUtf8<false>(text); }
std::wstring Utf8ToWideLossy(std::string_view text) { return *ToWide<true>(text); }
std::string WideToUtf8Lossy(std::wstring_view text) { return *ToUtf8<true>(text); }

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace os
