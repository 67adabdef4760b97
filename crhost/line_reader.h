#pragma once
// Splits the host program's standard input into lines on a thread of its
// own, so that the main thread can wait for the next line or for a stop
// request, whichever comes first.
//
// Lines are cut as LineSplitter cuts them, lines longer than kMaxLineBytes
// handed on as "too long". At most kQueuedLines lines wait to be taken; the
// reader then waits too.
//
// Thread rules: Next and Close from one thread (the consumer). The reading
// thread blocks in the system's read; if input is still open when the reader
// is destroyed, that thread is left to end with the process (it touches only
// state it shares ownership of).
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "line_splitter.h"
#include "os/event.h"

namespace crhost {

class LineReader {
public:
    static constexpr size_t kMaxLineBytes = size_t{8} * 1024 * 1024;
    static constexpr size_t kQueuedLines = 16;

    using Line = InputLine;

    // Starts reading; `available` is set whenever a line (or the end of
    // input) becomes available, so that the consumer can wait for it together
    // with other events.
    explicit LineReader(os::AutoResetEvent& available);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // The next line, if one is waiting. Null when none is (yet), or at the
    // end of input, which `Ended` then tells.
    std::optional<Line> Next();
    // True once the input has ended and every line was taken.
    bool Ended() const;

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace crhost
