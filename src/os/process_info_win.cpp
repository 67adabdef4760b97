// Threads are counted from a ToolHelp snapshot of the system's threads,
// handles with GetProcessHandleCount. Wine answers that call with 0, so
// there the open handles are found by probing the low range of handle values
// (Wine hands out small values, multiples of 4).
#include "os/process_info.h"

#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>

#include <cstdint>

namespace os {
namespace {
constexpr uintptr_t kProbedHandleValues = 0x10000;
}

size_t ProcessThreadCount() noexcept {
    HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return 0;
    const DWORD self = ::GetCurrentProcessId();
    size_t count = 0;
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == self) ++count;
        entry.dwSize = sizeof entry;
    }
    ::CloseHandle(snapshot);
    return count;
}

size_t ProcessHandleCount() noexcept {
    DWORD count = 0;
    if (::GetProcessHandleCount(::GetCurrentProcess(), &count) && count > 0) return count;
    size_t probed = 0;
    for (uintptr_t value = 4; value < kProbedHandleValues; value += 4) {
        DWORD flags = 0;
        if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++probed;
    }
    return probed;
}

}  // namespace os

namespace os {

// ntdll's RtlDllShutdownInProgress answers true from the moment the process
// began to end (ExitProcess, or the return from main) until it is gone.
bool ProcessIsEnding() noexcept {
    using Fn = BOOLEAN(WINAPI*)();
    static const Fn inProgress = [] {
        HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
        return ntdll
                   ? reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlDllShutdownInProgress")))
                   : nullptr;
    }();
    return inProgress && inProgress() != 0;
}

}  // namespace os
