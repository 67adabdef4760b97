#pragma once
// The process's standard input, output and error as bytes, without the C
// runtime's buffering or text-mode translation, and the program's arguments
// as wide text. A stream that is a Windows console is read and written as
// UTF-16 (os/console.h), so that the bytes are UTF-8 there too.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace os {

// Reads up to `size` bytes of standard input, blocking until some are there:
// the number read, 0 at the end of input or when reading fails. Any thread.
size_t ReadStandardInput(char* buffer, size_t size) noexcept;
// Writes all of `bytes`; false when the stream is closed or writing fails.
// Each call is one write of the whole text where the system allows it; the
// caller serialises writers that must not interleave.
bool WriteStandardOutput(std::string_view bytes) noexcept;
bool WriteStandardError(std::string_view bytes) noexcept;

// The program's arguments after its own name. Linux takes them from
// `argc`/`argv` (UTF-8; invalid bytes become U+FFFD); Windows ignores those
// and reads the process's wide command line.
std::vector<std::wstring> CommandLineArguments(int argc, char** argv);

}  // namespace os
