#include "plugin/log.h"

#include <thread>

namespace logging {
namespace {

int32_t SilentWrite(int16_t, const int32_t*, void*, const wchar_t*, const wchar_t*, va_list) { return kNoInterface; }

// Anchor whose address identifies this module.
const int kModuleAnchor = 0;

// The process-wide façade. `spin` serialises creation and destruction only.
std::atomic<int> spin{0};
std::atomic<CLogDLL*> facade{nullptr};
int holders = 0;  // guarded by `spin`

class SpinGuard {
public:
    SpinGuard() {
        // Held only for a counter update: yield briefly before backing off to 1 ms sleeps.
        for (int attempt = 0; spin.exchange(1, std::memory_order_acquire) != 0; ++attempt) {
            if (attempt < 64)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~SpinGuard() { spin.store(0, std::memory_order_release); }
};

template <class Fn>
void Bind(const os::LoadedModule& module, const char* name, Fn& slot) {
    slot = module.Function<Fn>(name);
}

}  // namespace

CLogDLL::CLogDLL(const std::wstring& fileName, const std::wstring& directory, void* moduleBase)
    : moduleBase_(moduleBase) {
    module_ = os::LoadedModule::FindLoaded(fileName);
    if (!module_ && !directory.empty()) module_ = os::LoadedModule::Load(os::JoinPath(directory, fileName));
    if (module_) {
        if (auto init = module_.Function<LogProc>("LogInit")) init();
        Bind(module_, "LogApplySettings", logApplySettings_);
        Bind(module_, "LogSetSettingsFile", logSetSettingsFile_);
        Bind(module_, "LogEnable", logEnable_);
        Bind(module_, "LogSetLevel", logSetLevel_);
        Bind(module_, "LogSetPath", logSetPath_);
        Bind(module_, "LogSetType", logSetType_);
        Bind(module_, "LogSetMode", logSetMode_);
        Bind(module_, "LogSetMaxSize", logSetMaxSize_);
        Bind(module_, "LogSetDepth", logSetDepth_);
        Bind(module_, "LogWrite", logWrite_);
        Bind(module_, "LogIsEnabled", logIsEnabled_);
        Bind(module_, "LogMonitorSettings", logMonitorSettings_);
        Bind(module_, "LogUninitDeskMetrics", logUninitDeskMetrics_);
        Bind(module_, "LogTrackEvent", logTrackEvent_);
        Bind(module_, "LogTrackEventData", logTrackEventData_);
        Bind(module_, "LogRemoveModule", logRemoveModule_);
        Bind(module_, "LogGetLevel", logGetLevel_);
    }
    writeBound_ = logWrite_ != nullptr;
    if (!logWrite_) logWrite_ = &SilentWrite;
}

CLogDLL::~CLogDLL() {
    if (!module_) return;
    if (auto deinit = module_.Function<LogProc>("LogDeinit")) deinit();
    if (logUninitDeskMetrics_) logUninitDeskMetrics_();
    if (logRemoveModule_) reinterpret_cast<void (*)(const char*)>(logRemoveModule_)("logging::CLogDLL::~CLogDLL");
    module_.Reset();
}

int CLogDLL::BoundEntryCount() const noexcept {
    const LogProc entries[] = {logApplySettings_, logSetSettingsFile_, logEnable_,          logSetLevel_,
                               logSetPath_,       logSetType_,         logSetMode_,         logSetMaxSize_,
                               logSetDepth_,      logIsEnabled_,       logMonitorSettings_, logUninitDeskMetrics_,
                               logTrackEvent_,    logTrackEventData_,  logRemoveModule_,    logGetLevel_};
    int n = writeBound_ ? 1 : 0;
    for (LogProc p : entries) n += p != nullptr;
    return n;
}

int32_t CLogDLL::Write(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t r = WriteV(nestingStep, level, function, format, args);
    va_end(args);
    return r;
}

int32_t CLogDLL::WriteV(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format,
                        va_list args) {
    return logWrite_(nestingStep, &level, moduleBase_, function, format, args);
}

CLogDLL* CLogDLL::Acquire() {
    SpinGuard guard;
    if (holders++ == 0) {
        facade.store(new CLogDLL(os::SharedLibraryFileName(L"log"), os::DirectoryOf(os::ModulePathOf(&kModuleAnchor)),
                                 os::ModuleBaseOf(&kModuleAnchor)),
                     std::memory_order_release);
    }
    return facade.load(std::memory_order_acquire);
}

void CLogDLL::Release() {
    SpinGuard guard;
    if (holders == 0) return;
    if (--holders == 0) delete facade.exchange(nullptr, std::memory_order_acq_rel);
}

bool CLogDLL::Exists() noexcept { return facade.load(std::memory_order_acquire) != nullptr; }

void WriteV(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, va_list args) {
    if (!CLogDLL::Exists()) return;
    CLogDLL* log = CLogDLL::Acquire();
    log->WriteV(nestingStep, level, function, format, args);
    CLogDLL::Release();
}

void Write(int16_t nestingStep, int32_t level, const wchar_t* function, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(nestingStep, level, function, format, args);
    va_end(args);
}

void Log(int32_t level, const wchar_t* function, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(0, level, function, format, args);
    va_end(args);
}

}  // namespace logging
