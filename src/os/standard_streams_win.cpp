#include "os/standard_streams.h"

#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>

#include "os/console.h"

namespace os {

namespace {
bool WriteAll(DWORD which, std::string_view bytes) noexcept {
    const StandardStream console = which == STD_ERROR_HANDLE ? StandardStream::kError : StandardStream::kOutput;
    if (IsConsole(console)) return WriteConsoleUtf8(console, bytes);
    HANDLE stream = ::GetStdHandle(which);
    if (!stream || stream == INVALID_HANDLE_VALUE) return false;
    while (!bytes.empty()) {
        DWORD written = 0;
        const DWORD chunk = bytes.size() > 0x10000000 ? 0x10000000 : static_cast<DWORD>(bytes.size());
        if (!::WriteFile(stream, bytes.data(), chunk, &written, nullptr)) return false;
        bytes.remove_prefix(written);
    }
    return true;
}
}  // namespace

size_t ReadStandardInput(char* buffer, size_t size) noexcept {
    if (IsConsole(StandardStream::kInput)) return ReadConsoleUtf8(buffer, size);
    HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    if (!input || input == INVALID_HANDLE_VALUE) return 0;
    DWORD read = 0;
    const DWORD chunk = size > 0x10000000 ? 0x10000000 : static_cast<DWORD>(size);
    if (!::ReadFile(input, buffer, chunk, &read, nullptr)) return 0;
    return read;
}

bool WriteStandardOutput(std::string_view bytes) noexcept { return WriteAll(STD_OUTPUT_HANDLE, bytes); }
bool WriteStandardError(std::string_view bytes) noexcept { return WriteAll(STD_ERROR_HANDLE, bytes); }

std::vector<std::wstring> CommandLineArguments(int, char**) {
    std::vector<std::wstring> arguments;
    int count = 0;
    wchar_t** list = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (!list) return arguments;
    for (int i = 1; i < count; ++i) arguments.emplace_back(list[i]);
    ::LocalFree(list);
    return arguments;
}

}  // namespace os
