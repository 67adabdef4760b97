#pragma once
// Cuts the host program's input bytes into lines, as they come in pieces of
// any size.
//
// A line ends at '\n' (a '\r' before it is dropped) or at the end of input;
// a last line is kept only when it holds something. A line longer than the
// splitter's limit is not kept: its bytes are skipped up to its end and it is
// handed on as "too long", so that no input, however large, exhausts the
// memory. Lines are numbered from 1, blank ones included.
//
// Thread rule: one thread feeds a splitter.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace crhost {

struct InputLine {
    uint64_t number = 0;  // counted from 1
    std::string text;     // empty when tooLong
    bool tooLong = false;
};

class LineSplitter {
public:
    // Takes each completed line; false to stop (no further line is handed on).
    using Emit = std::function<bool(InputLine)>;

    explicit LineSplitter(size_t maxLineBytes) : maxLineBytes_(maxLineBytes) { current_.number = 1; }

    // The next bytes of input. False once `emit` asked to stop.
    bool Feed(const char* bytes, size_t size, const Emit& emit);
    // The end of input: hands on the last line when it holds anything.
    bool Finish(const Emit& emit);

private:
    void MarkTooLong();
    // Ends the current line: drops a CR before its end, then checks its length.
    void Complete();

    const size_t maxLineBytes_;
    InputLine current_;
};

}  // namespace crhost
