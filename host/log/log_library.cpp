// Reference logging library. Appends one line per message,
//   time<TAB>thread<TAB>level<TAB>nesting step<TAB>function<TAB>message
// (time in UTC as 2026-11-24T08:45:01.123Z, thread as the system's thread id)
// in UTF-8 to the file named by CR_LOG_FILE (standard error when unset).
// CR_LOG_LEVEL, when set, drops messages whose level number is above it.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "os/environment.h"
#include "os/file_io.h"
#include "os/no_destructor.h"
#include "os/thread_id.h"
#include "os/utf8.h"
#include "os/wall_time.h"
#include "thread_sink.h"
#include "windows_format.h"

#if defined(_WIN32)
#define LOG_EXPORT extern "C" __declspec(dllexport)
#else
#define LOG_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

// Where the lines go. Never destroyed: a module's thread may still write
// while the process exits and static objects are destroyed (a host that ends
// without stopping its plug-ins), and must then find the sink intact. Every
// line is flushed as it is written, so nothing waits for a destructor;
// LogDeinit gives back what the sink holds.
struct Sink {
    std::mutex mutex;
    std::wstring openPath;  // guarded by mutex
    os::FilePtr openFile;   // guarded by mutex
};

Sink& TheSink() {
    static os::NoDestructor<Sink> sink;
    return *sink;
}

void AppendLine(const std::string& line) {
    const std::wstring path = os::GetEnv(L"CR_LOG_FILE").value_or(L"");
    Sink& sink = TheSink();
    std::lock_guard lock(sink.mutex);
    if (path.empty()) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        return;
    }
    if (!sink.openFile || path != sink.openPath) {
        sink.openFile = os::OpenFile(path, L"ab");
        sink.openPath = path;
    }
    if (!sink.openFile) return;
    std::fwrite(line.data(), 1, line.size(), sink.openFile.get());
    std::fflush(sink.openFile.get());
}

// The calling thread's copy of its messages (LogSetThreadSink).
thread_local host::log::ThreadSink threadSink = nullptr;
thread_local void* threadSinkContext = nullptr;

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
    Sink& sink = TheSink();
    std::lock_guard lock(sink.mutex);
    sink.openFile.reset();
    std::wstring().swap(sink.openPath);
}

LOG_EXPORT void LogUninitDeskMetrics() {}
LOG_EXPORT void LogRemoveModule(const char*) {}

LOG_EXPORT int32_t LogIsEnabled() { return 1; }

LOG_EXPORT void LogSetThreadSink(host::log::ThreadSink sink, void* context) {
    threadSink = sink;
    threadSinkContext = context;
}

LOG_EXPORT int32_t LogWrite(int16_t nestingStep, const int32_t* level, void* module, const wchar_t* function,
                            const wchar_t* format, va_list args) {
    const int32_t lvl = level ? *level : 0;
    const bool enabled = LevelEnabled(lvl);
    if (!enabled && !threadSink) return 0;
    const std::wstring message = host::FormatWindowsStyle(format, args);
    if (threadSink) threadSink(threadSinkContext, lvl, function ? function : L"", message.c_str());
    if (!enabled) return 0;
    const std::wstring text = std::to_wstring(lvl) + L"\t" + std::to_wstring(nestingStep) + L"\t" +
                              (function ? function : L"") + L"\t" + message + L"\n";
    AppendLine(os::Iso8601UtcNow() + "\t" + std::to_string(os::CurrentThreadId()) + "\t" + os::WideToUtf8Lossy(text));
    return 0;
}
