#include "line_splitter.h"

#include <cstring>
#include <utility>

namespace crhost {

void LineSplitter::MarkTooLong() {
    current_.tooLong = true;
    current_.text = std::string();
}

void LineSplitter::Complete() {
    if (current_.tooLong) return;
    if (!current_.text.empty() && current_.text.back() == '\r') current_.text.pop_back();
    if (current_.text.size() > maxLineBytes_) MarkTooLong();
}

bool LineSplitter::Feed(const char* bytes, size_t size, const Emit& emit) {
    // While a line is read, it may hold one byte more than the longest line
    // kept: a CR that the line's end then drops.
    const size_t maxHeldBytes = maxLineBytes_ + 1;
    const char* at = bytes;
    const char* const end = bytes + size;
    while (at < end) {
        const char* newline = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
        const char* stop = newline ? newline : end;
        if (!current_.tooLong) {
            if (current_.text.size() + static_cast<size_t>(stop - at) > maxHeldBytes)
                MarkTooLong();
            else
                current_.text.append(at, stop);
        }
        if (!newline) break;
        at = newline + 1;
        Complete();
        const uint64_t next = current_.number + 1;
        if (!emit(std::exchange(current_, InputLine{}))) return false;
        current_.number = next;
    }
    return true;
}

bool LineSplitter::Finish(const Emit& emit) {
    if (current_.text.empty() && !current_.tooLong) return true;
    Complete();
    const uint64_t next = current_.number + 1;
    const bool goOn = emit(std::exchange(current_, InputLine{}));
    current_.number = next;
    return goOn;
}

}  // namespace crhost
