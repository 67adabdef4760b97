// Reference logging library. Appends one line per message,
//   level<TAB>nesting step<TAB>function<TAB>message
// in UTF-8 to the file named by CR_LOG_FILE (standard error when unset).
// CR_LOG_LEVEL, when set, drops messages whose level number is above it.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "os/environment.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "windows_format.h"

#if defined(_WIN32)
#define LOG_EXPORT extern "C" __declspec(dllexport)
#else
#define LOG_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

std::mutex sinkMutex;
std::wstring openPath;  // guarded by sinkMutex
os::FilePtr openFile;   // guarded by sinkMutex

void AppendLine(const std::string& line) {
    const std::wstring path = os::GetEnv(L"CR_LOG_FILE").value_or(L"");
    std::lock_guard lock(sinkMutex);
    if (path.empty()) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        return;
    }
    if (!openFile || path != openPath) {
        openFile = os::OpenFile(path, L"ab");
        openPath = path;
    }
    if (!openFile) return;
    std::fwrite(line.data(), 1, line.size(), openFile.get());
    std::fflush(openFile.get());
}

bool LevelEnabled(int32_t level) {
    auto limit = os::GetEnv(L"CR_LOG_LEVEL");
    if (!limit || limit->empty()) return true;
    try {
        return level <= std::stoi(*limit);
    } catch (...) {
        return true;
    }
}

}  // namespace

LOG_EXPORT void LogInit() {}

LOG_EXPORT void LogDeinit() {
    std::lock_guard lock(sinkMutex);
    openFile.reset();
    openPath.clear();
}

LOG_EXPORT void LogUninitDeskMetrics() {}
LOG_EXPORT void LogRemoveModule(const char*) {}

LOG_EXPORT int32_t LogIsEnabled() { return 1; }

LOG_EXPORT int32_t LogWrite(int16_t nestingStep, const int32_t* level, void* module, const wchar_t* function,
                            const wchar_t* format, va_list args) {
    const int32_t lvl = level ? *level : 0;
    if (!LevelEnabled(lvl)) return 0;
    std::wstring line = std::to_wstring(lvl) + L"\t" + std::to_wstring(nestingStep) + L"\t" +
                        (function ? function : L"") + L"\t" + host::FormatWindowsStyle(format, args) + L"\n";
    AppendLine(os::WideToUtf8Lossy(line));
    return 0;
}
