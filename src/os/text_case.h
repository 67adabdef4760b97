#pragma once
// Case of wide text as the C library's current locale sees it (towupper):
// for SIDs, distinguished names and account names, which the system compares
// without regard to case. DNS names fold ASCII only and do not use these.
// Pure functions: any thread.
#include <string>
#include <string_view>

namespace os {

wchar_t UpperCase(wchar_t c) noexcept;
std::wstring UpperCase(std::wstring text);
bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept;

}  // namespace os
