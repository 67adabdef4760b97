#pragma once
// The paths of the settings store's nodes: "/" is the root; "/A/B" the child
// B of A. Any thread.
#include <string>
#include <vector>

namespace host::settings {

// Splits `path` into its segments. False for a malformed path: null, a
// missing leading '/', an empty segment (a trailing '/' included), a segment
// that is not a valid child name, or more than SettingsStore::kMaxDepth
// segments.
bool ParsePath(const wchar_t* path, std::vector<std::wstring>& segments);

}  // namespace host::settings
