#pragma once
// Loading shared libraries (DLLs / shared objects) at run time.
#include <cstdint>
#include <string>

#include "os/path.h"
#include "os/status.h"

namespace os {

using ModuleHandle = void*;

// "log" -> "log.dll" on Windows, "liblog.so" on Linux.
std::wstring SharedLibraryFileName(const std::wstring& stem);
// "cr-host" -> "cr-host.exe" on Windows, "cr-host" on Linux.
std::wstring ExecutableFileName(const std::wstring& stem);

// Loads the library at `path` (never searched for elsewhere); null on failure.
ModuleHandle LoadModule(const std::wstring& path) noexcept;

// Loads the library at `path` so that the libraries it imports are found
// beside it and in the system's folders (Windows: LoadLibraryExW with
// LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS where
// the system has SetDefaultDllDirectories, LOAD_WITH_ALTERED_SEARCH_PATH
// otherwise; Linux: as LoadModule). Null on failure.
ModuleHandle LoadModuleWithItsDependencies(const std::wstring& path) noexcept;

// The system's error code of the calling thread's last failed load
// (Windows: GetLastError); 0 when there is none or the system gives no code
// (Linux).
uint32_t LastModuleErrorCode() noexcept;

// Why the calling thread's last LoadModule failed, in the system's words
// (dlerror() text on Linux; the error code and its FormatMessageW text on
// Windows); "" after a successful load or before any.
std::wstring LastModuleError();

// The already loaded library whose file name is `fileName`, with its reference
// count raised (release it with ReleaseModule); null when it is not loaded.
ModuleHandle FindLoadedModule(const std::wstring& fileName) noexcept;

// Address of an exported symbol, or null.
void* FindSymbol(ModuleHandle module, const char* name) noexcept;

void ReleaseModule(ModuleHandle module) noexcept;

// A loaded library, released when the handle goes; a load that failed
// leaves the handle empty with the system's reason. Movable, not copyable.
// One owner at a time: not to be shared between threads without a lock.
class LoadedModule {
public:
    LoadedModule() = default;  // empty, no error
    ~LoadedModule() { Reset(); }
    LoadedModule(LoadedModule&& other) noexcept;
    LoadedModule& operator=(LoadedModule&& other) noexcept;
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;

    // As LoadModule, LoadModuleWithItsDependencies and FindLoadedModule.
    static LoadedModule Load(const std::wstring& path);
    static LoadedModule LoadWithItsDependencies(const std::wstring& path);
    // Empty without an error when the library is not loaded.
    static LoadedModule FindLoaded(const std::wstring& fileName);

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    // The exported function `name` as `Fn`, or null (also when empty).
    template <class Fn>
    Fn Function(const char* name) const noexcept {
        return reinterpret_cast<Fn>(FindSymbol(handle_, name));
    }
    // Why the load failed: the message is the system's words, the code the
    // system's error, or kFunctionFailed where it gives none (Linux). Success
    // when it did not fail.
    const Status& status() const noexcept { return status_; }

    // Releases the library now (nothing when empty) and forgets any failure.
    void Reset() noexcept;

private:
    explicit LoadedModule(ModuleHandle handle) noexcept : handle_(handle) {}
    // Takes the outcome of the thread's last load.
    static LoadedModule FromLoad(ModuleHandle handle);

    ModuleHandle handle_ = nullptr;
    Status status_;
};

// Full path of the binary (executable or library) that contains `address`.
std::wstring ModulePathOf(const void* address);

// Full path of the running program's executable file ("" when the system
// cannot tell).
std::wstring ProgramPath();
// Base address (instance handle) of the binary that contains `address`.
void* ModuleBaseOf(const void* address) noexcept;

// Keeps the binary that contains `address` loaded until the process ends,
// whatever its loader releases later: for code that must outlive its owner's
// release of the library (a thread left running in it). False when the
// system refused.
bool PinModuleOf(const void* address) noexcept;

}  // namespace os
