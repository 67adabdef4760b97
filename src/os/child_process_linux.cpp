// The child's input is one end of a socket pair rather than a pipe, so that a
// write after the child has gone fails with EPIPE (MSG_NOSIGNAL) instead of
// raising SIGPIPE in the parent. Output and error are pipes.
#include "os/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "os/utf8.h"

extern char** environ;

namespace os {

struct ChildProcess::Native {
    pid_t pid = -1;
    int input = -1;
    int output = -1;
    int error = -1;
    std::mutex mutex;  // reaping: pid, exited, status
    bool exited = false;
    int status = 0;
};

namespace {

void CloseFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// The exit status of a reaped child, with signals as 128 + number.
int ExitStatusOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

ChildProcess::ChildProcess(std::unique_ptr<Native> native) : native_(std::move(native)) {}

Expected<std::unique_ptr<ChildProcess>> ChildProcess::Start(const std::wstring& program,
                                                            const std::vector<std::wstring>& arguments,
                                                            const std::wstring& workingDirectory) {
    std::vector<std::string> texts;
    texts.push_back(WideToUtf8Lossy(program));
    for (const std::wstring& argument : arguments) texts.push_back(WideToUtf8Lossy(argument));
    std::vector<char*> argv;
    for (std::string& text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);

    int input[2] = {-1, -1}, output[2] = {-1, -1}, errors[2] = {-1, -1};
    auto closeAll = [&] {
        for (int* pair : {input, output, errors}) {
            CloseFd(pair[0]);
            CloseFd(pair[1]);
        }
    };
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0 || ::pipe2(output, O_CLOEXEC) != 0 ||
        ::pipe2(errors, O_CLOEXEC) != 0) {
        const int cause = errno;
        closeAll();
        return Status::System(static_cast<uint32_t>(cause), L"cannot create the pipes");
    }
    // The child's input is only read: shut the other direction so that the
    // parent never waits on it.
    ::shutdown(input[0], SHUT_WR);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    ::posix_spawn_file_actions_adddup2(&actions, errors[1], 2);
    const std::string directory = WideToUtf8Lossy(workingDirectory);
    if (!directory.empty()) ::posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    // The child starts with the default signal dispositions and no signal
    // blocked, whatever the parent set for itself.
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t all, none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, texts[0].c_str(), &actions, &attributes, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    CloseFd(input[0]);
    CloseFd(output[1]);
    CloseFd(errors[1]);
    if (spawned != 0) {
        closeAll();
        return Status::System(static_cast<uint32_t>(spawned), L"cannot start " + program);
    }
    auto native = std::make_unique<Native>();
    native->pid = pid;
    native->input = input[1];
    native->output = output[0];
    native->error = errors[0];
    return std::unique_ptr<ChildProcess>(new ChildProcess(std::move(native)));
}

ChildProcess::~ChildProcess() {
    CloseFd(native_->input);
    Kill();
    static_cast<void>(Wait(0xFFFFFFFFu));
    CloseFd(native_->output);
    CloseFd(native_->error);
}

bool ChildProcess::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        if (native_->input < 0) return false;
        const ssize_t n = ::send(native_->input, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void ChildProcess::CloseInput() { CloseFd(native_->input); }

size_t ChildProcess::Read(Stream stream, char* buffer, size_t size) {
    const int fd = stream == Stream::kOutput ? native_->output : native_->error;
    for (;;) {
        const ssize_t n = ::read(fd, buffer, size);
        if (n >= 0) return static_cast<size_t>(n);
        if (errno != EINTR) return 0;
    }
}

bool ChildProcess::RequestStop() {
    std::lock_guard lock(native_->mutex);
    return !native_->exited && ::kill(native_->pid, SIGTERM) == 0;
}

void ChildProcess::Kill() {
    // Under the reaping lock: a reaped child's number may belong to another
    // process by now.
    std::lock_guard lock(native_->mutex);
    if (!native_->exited) ::kill(native_->pid, SIGKILL);
}

std::optional<int> ChildProcess::Wait(uint32_t timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        {
            std::lock_guard lock(native_->mutex);
            if (native_->exited) return ExitStatusOf(native_->status);
            int status = 0;
            const pid_t reaped = ::waitpid(native_->pid, &status, WNOHANG);
            if (reaped == native_->pid || (reaped < 0 && errno == ECHILD)) {
                native_->exited = true;
                native_->status = reaped == native_->pid ? status : 0;
                return ExitStatusOf(native_->status);
            }
        }
        if (timeoutMs != 0xFFFFFFFFu && std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace os
