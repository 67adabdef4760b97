#pragma once
// Conversion between UTF-8 and the platform's wide strings (UTF-16 where
// wchar_t is 16 bits, UTF-32 where it is 32 bits).
#include <optional>
#include <string>
#include <string_view>

namespace os {

// Null when `text` is not well-formed UTF-8 (overlongs, surrogates, values
// above U+10FFFF and truncated sequences are all rejected).
std::optional<std::wstring> Utf8ToWide(std::string_view text);
// Whether Utf8ToWide would accept `text`, without converting it.
bool IsUtf8(std::string_view text);

// Null when `text` holds an unpaired surrogate or an invalid code point.
std::optional<std::string> WideToUtf8(std::wstring_view text);

// Appends the UTF-8 form of code point `cp` (which must be a valid one).
void AppendUtf8(std::string& out, char32_t cp);

// Lossy forms for diagnostics: invalid input becomes U+FFFD.
std::wstring Utf8ToWideLossy(std::string_view text);
std::string WideToUtf8Lossy(std::wstring_view text);

}  // namespace os
