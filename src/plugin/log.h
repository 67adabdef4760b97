#pragma once
// Logging façade over the optional logging library that sits beside the
// module ("log.dll" on Windows, "liblog.so" on Linux). Without the library
// every message silently disappears and nothing else changes.
//
// Formats are wide printf formats in the Windows convention: %s is a wide
// string, %S a narrow one; the library does the formatting.
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <string>

#include "os/module.h"

namespace logging {

enum Level : int32_t {
    kError = 4,    // a failure that stops an operation
    kWarning = 8,  // a failed lookup or rejected input
    kDetail = 16,  // detail
    kTrace = 32,   // call tracing and chatter
};

// Returned by the stand-in writer when the library has no "LogWrite".
constexpr int32_t kNoInterface = static_cast<int32_t>(0x80004002u);

using LogWriteFn = int32_t (*)(int16_t nestingStep, const int32_t* level, void* module, const wchar_t* function,
                               const wchar_t* format, va_list args);
using LogProc = void (*)();

class CLogDLL {
public:
    // Binds to the library `fileName`: the copy already loaded in the process
    // if any, otherwise the one in `directory` (never searched for elsewhere).
    // `moduleBase` identifies the writing module to the library.
    CLogDLL(const std::wstring& fileName, const std::wstring& directory, void* moduleBase);
    ~CLogDLL();
    CLogDLL(const CLogDLL&) = delete;
    CLogDLL& operator=(const CLogDLL&) = delete;

    // Forwards to "LogWrite" with the module handle added.
    int32_t Write(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, ...);
    int32_t WriteV(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, va_list args);

    bool LibraryLoaded() const noexcept { return static_cast<bool>(module_); }
    // Why loading the library from the directory failed, in the system's
    // words; "" when it loaded, was already loaded or was not looked for.
    // Nothing can be logged about it, the library being the log.
    const std::wstring& LoadError() const noexcept { return module_.status().message(); }
    // True when "LogWrite" came from the library rather than the silent stand-in.
    bool WriterBound() const noexcept { return writeBound_; }
    // Number of the library's optional entry points that were found.
    int BoundEntryCount() const noexcept;

    // The process-wide façade of this module: created and bound by the first
    // Acquire, destroyed (and the library released) by the last Release.
    // Callable from any thread; creation and destruction are serialised by a
    // spin flag.
    static CLogDLL* Acquire();
    static void Release();
    // Whether some holder keeps the façade alive.
    static bool Exists() noexcept;

private:
    os::LoadedModule module_;
    LogProc logApplySettings_ = nullptr;
    LogProc logSetSettingsFile_ = nullptr;
    LogProc logEnable_ = nullptr;
    LogProc logSetLevel_ = nullptr;
    LogProc logSetPath_ = nullptr;
    LogProc logSetType_ = nullptr;
    LogProc logSetMode_ = nullptr;
    LogProc logSetMaxSize_ = nullptr;
    LogProc logSetDepth_ = nullptr;
    LogWriteFn logWrite_ = nullptr;
    LogProc logIsEnabled_ = nullptr;
    LogProc logMonitorSettings_ = nullptr;
    LogProc logUninitDeskMetrics_ = nullptr;
    LogProc logTrackEvent_ = nullptr;
    LogProc logTrackEventData_ = nullptr;
    LogProc logRemoveModule_ = nullptr;
    LogProc logGetLevel_ = nullptr;
    void* moduleBase_ = nullptr;
    bool writeBound_ = false;
};

// Keeps the process-wide façade alive for its lifetime.
class ScopedLogHolder {
public:
    ScopedLogHolder() { CLogDLL::Acquire(); }
    ~ScopedLogHolder() { CLogDLL::Release(); }
    ScopedLogHolder(const ScopedLogHolder&) = delete;
    ScopedLogHolder& operator=(const ScopedLogHolder&) = delete;
};

// Writes one message when the façade exists; otherwise nothing is formatted.
void Write(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, ...);
void WriteV(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, va_list args);

// A message with nesting step 0.
void Log(int32_t level, const wchar_t* function, const wchar_t* format, ...);

}  // namespace logging
