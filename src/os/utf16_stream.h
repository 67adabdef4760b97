#pragma once
// Conversion between UTF-16 and UTF-8 for text that arrives in pieces, as a
// console delivers it: a piece may end inside a character (half of a
// surrogate pair, part of a UTF-8 sequence). The unfinished end of one piece
// waits for the next, so that a character split between two pieces comes out
// whole. Ill-formed input becomes U+FFFD and conversion goes on.
//
// Thread rule: one object per stream, used by one thread at a time.
#include <string>
#include <string_view>

namespace os {

class Utf16ToUtf8Stream {
public:
    // The UTF-8 form of `units`; a high surrogate at its end waits.
    std::string Convert(std::u16string_view units);
    // What still waits (a lone high surrogate, as U+FFFD); the stream is then empty.
    std::string Flush();

private:
    char16_t pendingHigh_ = 0;
};

class Utf8ToUtf16Stream {
public:
    // The UTF-16 form of `bytes`; an unfinished sequence at its end waits.
    std::u16string Convert(std::string_view bytes);
    // What still waits (an unfinished sequence, as U+FFFD); the stream is then empty.
    std::u16string Flush();

private:
    std::string pending_;
};

}  // namespace os
