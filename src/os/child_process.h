#pragma once
// A program started as a child process whose standard input, output and
// error are pipes held by the parent: the parent writes the child's input,
// reads its output and error, asks it to stop or ends it, and waits for its
// exit status.
//
// Thread rules: Write and CloseInput from one thread at a time; Read of each
// stream may block on a thread of its own; RequestStop, Kill and Wait from
// any thread. The destructor ends a child that is still running (Kill) and
// waits for it, so no process outlives its object; it must not run while
// another thread is inside a member function.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "os/status.h"

namespace os {

class ChildProcess {
public:
    enum class Stream { kOutput, kError };

    // Starts the program at `program` (a path; not searched for) with
    // `arguments` (after the program's name), in `workingDirectory` (the
    // parent's own when empty), with the parent's environment. On failure,
    // the system's error and which step failed.
    static Expected<std::unique_ptr<ChildProcess>> Start(const std::wstring& program,
                                                         const std::vector<std::wstring>& arguments,
                                                         const std::wstring& workingDirectory);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes all of `bytes` to the child's standard input. False when the
    // input is closed (by CloseInput, or by the child ending).
    bool Write(std::string_view bytes);
    // Closes the child's standard input: the child reads its end.
    void CloseInput();
    // Reads what the child wrote to `stream`, blocking until something is
    // there: the number of bytes read, 0 at the stream's end (the child ended
    // or closed it).
    size_t Read(Stream stream, char* buffer, size_t size);

    // Asks the child to stop the way a user or the system would: SIGTERM on
    // Linux, a Ctrl+Break event to its console process group on Windows.
    // False when the request could not be delivered.
    bool RequestStop();
    // Ends the child at once, giving it no chance to clean up (SIGKILL,
    // TerminateProcess). Nothing happens for a child that has ended.
    void Kill();
    // The child's exit status once it has ended, waiting up to `timeoutMs`;
    // nullopt while it still runs. A child ended by a signal reports 128 plus
    // the signal's number (so a killed child reports 137 on both builds).
    std::optional<int> Wait(uint32_t timeoutMs);

    struct Native;

private:
    explicit ChildProcess(std::unique_ptr<Native> native);
    std::unique_ptr<Native> native_;
};

}  // namespace os
