#include "os/text_case.h"

#include <cwctype>

namespace os {

wchar_t UpperCase(wchar_t c) noexcept {
    // wint_t is unsigned on Linux and Windows alike; wchar_t's sign differs.
    return static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
}

std::wstring UpperCase(std::wstring text) {
    for (wchar_t& c : text) c = UpperCase(c);
    return text;
}

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (UpperCase(a[i]) != UpperCase(b[i])) return false;
    return true;
}

}  // namespace os
