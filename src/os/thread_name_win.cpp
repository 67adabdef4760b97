// Thread descriptions are bound at run time from Kernel32 (Windows 10 1607
// and later); threads are enumerated with a ToolHelp snapshot.
#include "os/thread_name.h"

#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>

#include "os/utf8.h"

namespace os {
namespace {

using SetFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
using GetFn = HRESULT(WINAPI*)(HANDLE, PWSTR*);

template <class Fn>
Fn Kernel32Function(const char* name) {
    HMODULE kernel32 = ::GetModuleHandleW(L"kernel32.dll");
    return kernel32 ? reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(kernel32, name))) : nullptr;
}

std::string DescriptionOf(DWORD threadId) {
    static const GetFn get = Kernel32Function<GetFn>("GetThreadDescription");
    if (!get) return {};
    HANDLE thread = ::OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, threadId);
    if (!thread) return {};
    std::string name;
    PWSTR description = nullptr;
    if (SUCCEEDED(get(thread, &description)) && description) {
        name = WideToUtf8Lossy(description);
        ::LocalFree(description);
    }
    ::CloseHandle(thread);
    return name;
}

}  // namespace

void SetCurrentThreadName(const std::string& name) noexcept {
    static const SetFn set = Kernel32Function<SetFn>("SetThreadDescription");
    if (!set) return;
    try {
        static_cast<void>(set(::GetCurrentThread(), Utf8ToWideLossy(name).c_str()));
    } catch (...) {
        // Out of memory for the conversion: the thread stays unnamed.
    }
}

std::vector<ThreadInfo> ProcessThreads() {
    std::vector<ThreadInfo> threads;
    HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return threads;
    const DWORD self = ::GetCurrentProcessId();
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == self)
            threads.push_back(ThreadInfo{static_cast<uint32_t>(entry.th32ThreadID), DescriptionOf(entry.th32ThreadID)});
        entry.dwSize = sizeof entry;
    }
    ::CloseHandle(snapshot);
    return threads;
}

}  // namespace os
