#include "os/utf16_stream.h"

#include <cstdint>

#include "os/utf8.h"

namespace os {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void AppendUtf16(std::u16string& out, char32_t cp) {
    if (cp >= 0x10000) {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
        out.push_back(static_cast<char16_t>(cp));
    }
}

// How many bytes the UTF-8 sequence led by `lead` has; 0 for a byte that
// cannot lead one.
size_t SequenceLength(uint8_t lead) {
    if (lead < 0x80) return 1;
    if ((lead & 0xE0) == 0xC0) return 2;
    if ((lead & 0xF0) == 0xE0) return 3;
    if ((lead & 0xF8) == 0xF0) return 4;
    return 0;
}

bool IsContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Where the unfinished sequence at the end of `text` starts (text.size()
// when the text ends on a whole character or on ill-formed bytes).
size_t UnfinishedTail(std::string_view text) {
    const size_t end = text.size();
    for (size_t back = 1; back <= 3 && back <= end; ++back) {
        const auto byte = static_cast<uint8_t>(text[end - back]);
        if (IsContinuation(byte)) continue;
        const size_t length = SequenceLength(byte);
        return length > back ? end - back : end;
    }
    return end;
}

// Decodes the code point at text[i], advancing i past it; U+FFFD for an
// ill-formed sequence, advancing past its lead byte and the continuation
// bytes that fit it.
char32_t Decode(std::string_view text, size_t& i) {
    const auto lead = static_cast<uint8_t>(text[i++]);
    const size_t length = SequenceLength(lead);
    if (length == 1) return lead;
    if (length == 0) return kReplacement;
    static constexpr uint8_t kLeadBits[] = {0, 0, 0x1F, 0x0F, 0x07};
    static constexpr char32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    char32_t cp = lead & kLeadBits[length];
    for (size_t k = 1; k < length; ++k) {
        if (i >= text.size() || !IsContinuation(static_cast<uint8_t>(text[i]))) return kReplacement;
        cp = (cp << 6) | (static_cast<uint8_t>(text[i++]) & 0x3F);
    }
    if (cp < kMinimum[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kReplacement;
    return cp;
}

}  // namespace

std::string Utf16ToUtf8Stream::Convert(std::u16string_view units) {
    std::string out;
    out.reserve(units.size() * 3);
    for (const char16_t unit : units) {
        if (pendingHigh_) {
            const char16_t high = pendingHigh_;
            pendingHigh_ = 0;
            if (IsLowSurrogate(unit)) {
                AppendUtf8(out, 0x10000 + ((char32_t(high) - 0xD800) << 10) + (char32_t(unit) - 0xDC00));
                continue;
            }
            AppendUtf8(out, kReplacement);
        }
        if (IsHighSurrogate(unit))
            pendingHigh_ = unit;
        else
            AppendUtf8(out, IsLowSurrogate(unit) ? kReplacement : char32_t(unit));
    }
    return out;
}

std::string Utf16ToUtf8Stream::Flush() {
    std::string out;
    if (pendingHigh_) AppendUtf8(out, kReplacement);
    pendingHigh_ = 0;
    return out;
}

std::u16string Utf8ToUtf16Stream::Convert(std::string_view bytes) {
    pending_.append(bytes);
    const std::string_view text(pending_);
    const size_t whole = UnfinishedTail(text);
    std::u16string out;
    out.reserve(whole);
    for (size_t i = 0; i < whole;) AppendUtf16(out, Decode(text.substr(0, whole), i));
    pending_.erase(0, whole);
    return out;
}

std::u16string Utf8ToUtf16Stream::Flush() {
    std::u16string out;
    if (!pending_.empty()) AppendUtf16(out, kReplacement);
    pending_.clear();
    return out;
}

}  // namespace os
