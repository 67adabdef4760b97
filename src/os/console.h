#pragma once
// The standard streams when they are an interactive console. Windows reads
// and writes a console as UTF-16 (ReadConsoleW, WriteConsoleW), so that text
// typed or shown is right whatever the console's code page; the program
// still sees UTF-8 bytes on both sides. Pipes and files stay byte streams.
// A Linux terminal is a byte stream that takes UTF-8 as it is: no stream is
// a console in this sense there, and the functions below use the bytes.
//
// Thread rules: any thread; reads are serialised among themselves, and so
// are the writes to each stream.
#include <cstddef>
#include <string_view>

namespace os {

enum class StandardStream { kInput, kOutput, kError };

// Whether `stream` is a console read or written as UTF-16 (never on Linux).
bool IsConsole(StandardStream stream) noexcept;

// Reads typed text as UTF-8, up to `size` bytes (the rest of what was typed
// waits for the next call), blocking until some is there: the number of
// bytes, 0 at the end of input (Ctrl+Z at the start of a line) or when
// reading fails.
size_t ReadConsoleUtf8(char* buffer, size_t size) noexcept;
// Shows UTF-8 `bytes` on the console `stream` (kOutput or kError); a
// sequence cut at the end of `bytes` waits for the next write. False when
// writing fails.
bool WriteConsoleUtf8(StandardStream stream, std::string_view bytes) noexcept;

}  // namespace os
