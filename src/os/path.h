#pragma once
// Path text helpers, written once for both builds; only the separators differ
// per platform (path_win.cpp, path_linux.cpp). Pure
// functions of their arguments: callable from any thread.
#include <string>

namespace os {

// The separator JoinPath puts between a directory and a name: '\\' on
// Windows, '/' on Linux.
extern const wchar_t kPathSeparator;
// Every character that ends a directory for DirectoryOf: "\\/" on Windows
// (both are accepted there), "/" on Linux.
extern const wchar_t kPathSeparators[];

// `path` without its last component and separator ("" when there is none).
std::wstring DirectoryOf(const std::wstring& path);

// `directory` joined with `name` by the platform's separator.
std::wstring JoinPath(const std::wstring& directory, const std::wstring& name);

}  // namespace os
