// Pipes are made with CreatePipe; only the child's ends are inheritable. The
// child gets its own console process group, so that a Ctrl+Break event can be
// sent to it alone.
#include "os/child_process.h"

#include <windows.h>

#include <mutex>

namespace os {

struct ChildProcess::Native {
    HANDLE process = nullptr;
    DWORD processId = 0;
    std::mutex inputMutex;
    HANDLE input = nullptr;
    HANDLE output = nullptr;
    HANDLE error = nullptr;
};

namespace {

void CloseHandleOnce(HANDLE& handle) {
    if (handle) ::CloseHandle(handle);
    handle = nullptr;
}

// One argument quoted the way CommandLineToArgvW and the C runtime split a
// command line: in quotes when it is empty or holds blanks or quotes, with
// the backslashes before a quote (and before the closing quote) doubled.
void AppendQuoted(std::wstring& line, const std::wstring& argument) {
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        line += argument;
        return;
    }
    line += L'"';
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"')
            line.append(backslashes * 2 + 1, L'\\');
        else
            line.append(backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(backslashes * 2, L'\\');
    line += L'"';
}

// A pipe whose `childEnd` is inheritable and whose other end is not.
bool MakePipe(HANDLE& childEnd, HANDLE& parentEnd, bool childReads) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE read = nullptr, write = nullptr;
    if (!::CreatePipe(&read, &write, &inherit, 0)) return false;
    childEnd = childReads ? read : write;
    parentEnd = childReads ? write : read;
    ::SetHandleInformation(parentEnd, HANDLE_FLAG_INHERIT, 0);
    return true;
}

}  // namespace

ChildProcess::ChildProcess(std::unique_ptr<Native> native) : native_(std::move(native)) {}

Expected<std::unique_ptr<ChildProcess>> ChildProcess::Start(const std::wstring& program,
                                                            const std::vector<std::wstring>& arguments,
                                                            const std::wstring& workingDirectory) {
    std::wstring line;
    AppendQuoted(line, program);
    for (const std::wstring& argument : arguments) {
        line += L' ';
        AppendQuoted(line, argument);
    }

    auto native = std::make_unique<Native>();
    HANDLE childInput = nullptr, childOutput = nullptr, childError = nullptr;
    auto closeChildEnds = [&] {
        CloseHandleOnce(childInput);
        CloseHandleOnce(childOutput);
        CloseHandleOnce(childError);
    };
    if (!MakePipe(childInput, native->input, true) || !MakePipe(childOutput, native->output, false) ||
        !MakePipe(childError, native->error, false)) {
        const DWORD cause = ::GetLastError();
        closeChildEnds();
        CloseHandleOnce(native->input);
        CloseHandleOnce(native->output);
        CloseHandleOnce(native->error);
        return Status::System(cause, L"cannot create the pipes");
    }

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childInput;
    startup.hStdOutput = childOutput;
    startup.hStdError = childError;
    PROCESS_INFORMATION info{};
    const BOOL started = ::CreateProcessW(
        program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT,
        nullptr, workingDirectory.empty() ? nullptr : workingDirectory.c_str(), &startup, &info);
    const DWORD startError = ::GetLastError();
    closeChildEnds();
    if (!started) {
        CloseHandleOnce(native->input);
        CloseHandleOnce(native->output);
        CloseHandleOnce(native->error);
        return Status::System(startError, L"cannot start " + program);
    }
    ::CloseHandle(info.hThread);
    native->process = info.hProcess;
    native->processId = info.dwProcessId;
    return std::unique_ptr<ChildProcess>(new ChildProcess(std::move(native)));
}

ChildProcess::~ChildProcess() {
    CloseInput();
    Kill();
    static_cast<void>(Wait(INFINITE));
    CloseHandleOnce(native_->process);
    CloseHandleOnce(native_->output);
    CloseHandleOnce(native_->error);
}

bool ChildProcess::Write(std::string_view bytes) {
    std::lock_guard lock(native_->inputMutex);
    while (!bytes.empty()) {
        if (!native_->input) return false;
        DWORD written = 0;
        const DWORD chunk = bytes.size() > 0x10000000 ? 0x10000000 : static_cast<DWORD>(bytes.size());
        if (!::WriteFile(native_->input, bytes.data(), chunk, &written, nullptr)) return false;
        bytes.remove_prefix(written);
    }
    return true;
}

void ChildProcess::CloseInput() {
    std::lock_guard lock(native_->inputMutex);
    CloseHandleOnce(native_->input);
}

size_t ChildProcess::Read(Stream stream, char* buffer, size_t size) {
    HANDLE pipe = stream == Stream::kOutput ? native_->output : native_->error;
    DWORD read = 0;
    const DWORD chunk = size > 0x10000000 ? 0x10000000 : static_cast<DWORD>(size);
    if (!::ReadFile(pipe, buffer, chunk, &read, nullptr)) return 0;
    return read;
}

bool ChildProcess::RequestStop() {
    return ::WaitForSingleObject(native_->process, 0) == WAIT_TIMEOUT &&
           ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, native_->processId) != 0;
}

void ChildProcess::Kill() {
    // The handle keeps the process object (and its number) alive until closed,
    // so this can only reach the child.
    if (::WaitForSingleObject(native_->process, 0) == WAIT_TIMEOUT) ::TerminateProcess(native_->process, 137);
}

std::optional<int> ChildProcess::Wait(uint32_t timeoutMs) {
    if (::WaitForSingleObject(native_->process, timeoutMs) != WAIT_OBJECT_0) return std::nullopt;
    DWORD code = 0;
    if (!::GetExitCodeProcess(native_->process, &code)) return -1;
    return static_cast<int>(code);
}

}  // namespace os
