#pragma once
// An export of the reference logging library beyond the ones the module
// binds: a copy, for one thread, of the messages written on it. A host uses
// it to show what the module said while it did one thing for the host on
// that thread (cr-host's "explain" of a tree that cannot be built).
//
// Found at run time: FindSymbol(log library, kLogSetThreadSinkName). A
// logging library without it simply offers no copy.
#include <cstdint>

namespace host::log {

// Called on the writing thread, before the write returns, with the message
// as it was formatted; it must not write to the log itself.
using ThreadSink = void (*)(void* context, int32_t level, const wchar_t* function, const wchar_t* message);

// Sets (or, with null, removes) the calling thread's sink.
using SetThreadSinkFn = void (*)(ThreadSink sink, void* context);
inline constexpr const char* kSetThreadSinkName = "LogSetThreadSink";

}  // namespace host::log
