#pragma once
// printf-style formatting in the Windows wide convention: %s and %ws take a
// wide string, %S and %hs a narrow (UTF-8) one, %c a wide character, %C a
// narrow one; integers take the usual flags, width, precision and the length
// modifiers h, l, ll, I64, I and z; %% is a percent sign. An unknown
// conversion is copied to the output as written.
#include <cstdarg>
#include <string>

namespace host {

std::wstring FormatWindowsStyle(const wchar_t* format, va_list args);

}  // namespace host
