// A logging library with a single export, "LogWrite": it appends
// "only<TAB>level<TAB>function<TAB>format" to the file named by CR_LOG_FILE.
#include <cstdarg>
#include <cstdint>
#include <string>

#include "os/environment.h"
#include "os/file_io.h"
#include "os/utf8.h"

#if defined(_WIN32)
#define TEST_EXPORT extern "C" __declspec(dllexport)
#else
#define TEST_EXPORT extern "C" __attribute__((visibility("default")))
#endif

TEST_EXPORT int32_t LogWrite(int16_t, const int32_t* level, void*, const wchar_t* function, const wchar_t* format,
                             va_list) {
    auto path = os::GetEnv(L"CR_LOG_FILE");
    if (!path) return 0;
    os::FilePtr file = os::OpenFile(*path, L"ab");
    if (!file) return 0;
    const std::string line = os::WideToUtf8Lossy(L"only\t" + std::to_wstring(level ? *level : 0) + L"\t" +
                                                 (function ? function : L"") + L"\t" + (format ? format : L"") + L"\n");
    std::fwrite(line.data(), 1, line.size(), file.get());
    return 0;
}
