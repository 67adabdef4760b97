#pragma once
// Questions about the file system.
#include <string>

namespace os {

// True when `path` names an existing file or directory. The path is handed to
// the system as it stands (no expansion, no resolution beyond what the system
// call does). Any failure (malformed path or one holding a NUL character,
// access denied, unreachable share, text that cannot be converted) counts as
// "does not exist". Any thread.
bool PathExists(const std::wstring& path) noexcept;

}  // namespace os
