#pragma once
// Scope object that logs "-> name()" on entry and "<- name() [ms]" on exit,
// on every exit path. Lives on the stack of the traced operation, on whatever
// thread runs it; writes nothing while no holder keeps the logging façade alive.
#include <cstdint>

namespace logging {

using TickSource = uint32_t (*)();

class CallTrace {
public:
    static constexpr int kTextChars = 260;
    static constexpr int kNameCut = 257;      // characters of the name kept in the text
    static constexpr int kFunctionCut = 259;  // characters of the name kept as function

    explicit CallTrace(const wchar_t* name, TickSource tick = nullptr);
    ~CallTrace();
    CallTrace(const CallTrace&) = delete;
    CallTrace& operator=(const CallTrace&) = delete;

    const wchar_t* text() const noexcept { return text_; }
    const wchar_t* function() const noexcept { return function_; }

    // Elapsed milliseconds between two readings of a wrapping 32-bit counter.
    static uint32_t Elapsed(uint32_t start, uint32_t now) noexcept { return now - start; }

private:
    TickSource tick_;
    uint32_t start_;
    wchar_t text_[kTextChars];
    wchar_t function_[kTextChars];
};

}  // namespace logging
