// Windows paths: '\\' joins, and either separator ends a directory.
#include "os/path.h"

namespace os {

const wchar_t kPathSeparator = L'\\';
const wchar_t kPathSeparators[] = L"\\/";

}  // namespace os
