#include "os/file_io.h"

#include <cstdio>

namespace os {

FilePtr OpenFile(const std::wstring& path, const wchar_t* mode) {
    return FilePtr(::_wfopen(path.c_str(), mode ? mode : L""));
}

}  // namespace os
