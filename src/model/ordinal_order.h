#pragma once
// The ordinal order of texts as the product orders them: by UTF-16 code
// units, whatever the width of wchar_t. On Windows that is the plain order of
// the units; where wchar_t holds whole code points, a character beyond
// U+FFFF compares as its surrogate pair, so it sorts before U+E000..U+FFFF
// as it does on Windows.
#include <cstddef>
#include <string_view>

namespace qv {

struct Utf16OrdinalLess {
    using is_transparent = void;
    bool operator()(std::wstring_view a, std::wstring_view b) const noexcept;
};

}  // namespace qv
