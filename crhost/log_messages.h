#pragma once
// The messages the module logs on the calling thread while an object of this
// class lives, copied from the reference logging library (its thread sink).
// With another logging library, or none, nothing is copied.
//
// Thread rule: made, read and destroyed on one thread; only that thread's
// messages are copied, so other threads' logging never mixes in.
#include <cstdint>
#include <string>
#include <vector>

#include "os/module.h"

namespace crhost {

class ThreadLogMessages {
public:
    // The logging library's levels: errors, warnings, details; call traces are 32.
    enum Level : int32_t { kError = 4, kWarning = 8, kDetail = 16 };

    // Copies messages of level `maxLevel` or lower.
    explicit ThreadLogMessages(int32_t maxLevel);
    ~ThreadLogMessages();
    ThreadLogMessages(const ThreadLogMessages&) = delete;
    ThreadLogMessages& operator=(const ThreadLogMessages&) = delete;

    // Whether messages are being copied at all.
    bool Active() const { return set_ != nullptr; }
    // The messages so far, in order, as UTF-8.
    const std::vector<std::string>& messages() const { return messages_; }

private:
    static void Take(void* context, int32_t level, const wchar_t* function, const wchar_t* message);

    using SetFn = void (*)(void (*)(void*, int32_t, const wchar_t*, const wchar_t*), void*);
    os::LoadedModule library_;
    SetFn set_ = nullptr;
    int32_t maxLevel_;
    std::vector<std::string> messages_;
};

}  // namespace crhost
