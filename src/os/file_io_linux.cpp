#include "os/file_io.h"

#include "os/utf8.h"

namespace os {

FilePtr OpenFile(const std::wstring& path, const wchar_t* mode) {
    auto narrowPath = WideToUtf8(path);
    auto narrowMode = WideToUtf8(mode ? mode : L"");
    if (!narrowPath || !narrowMode) return nullptr;
    return FilePtr(std::fopen(narrowPath->c_str(), narrowMode->c_str()));
}

}  // namespace os
