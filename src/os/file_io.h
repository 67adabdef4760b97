#pragma once
// Opening files by wide path.
#include <cstdio>
#include <memory>
#include <string>

namespace os {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept {
        if (f) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// `mode` as for fopen ("rb", "ab", ...); null on failure.
FilePtr OpenFile(const std::wstring& path, const wchar_t* mode);

}  // namespace os
