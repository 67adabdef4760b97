#include "model/ordinal_order.h"

#include <cstdint>

namespace qv {
namespace {

// Walks a text as UTF-16 code units: a unit above U+FFFF yields its two
// surrogates; every other unit (lone surrogates included) is itself.
class Utf16Units {
public:
    explicit Utf16Units(std::wstring_view text) : text_(text) {}
    bool Done() const noexcept { return index_ == text_.size(); }
    uint32_t Next() noexcept {
        // NOLINTNEXTLINE(bugprone-signed-char-misuse): a wchar_t, no char
        const uint32_t unit = static_cast<uint32_t>(text_[index_]);
        if (unit <= 0xFFFF) {
            ++index_;
            return unit;
        }
        const uint32_t offset = unit - 0x10000;
        if (!secondHalf_) {
            secondHalf_ = true;
            return 0xD800 + ((offset >> 10) & 0x3FF);
        }
        secondHalf_ = false;
        ++index_;
        return 0xDC00 + (offset & 0x3FF);
    }

private:
    std::wstring_view text_;
    size_t index_ = 0;
    bool secondHalf_ = false;
};

}  // namespace

bool Utf16OrdinalLess::operator()(std::wstring_view a, std::wstring_view b) const noexcept {
    if constexpr (sizeof(wchar_t) == 2) {
        return a < b;
    } else {
        Utf16Units left(a), right(b);
        while (!left.Done() && !right.Done()) {
            const uint32_t x = left.Next(), y = right.Next();
            if (x != y) return x < y;
        }
        return left.Done() && !right.Done();
    }
}

}  // namespace qv
