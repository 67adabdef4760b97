#include "os/console.h"

#include "os/standard_streams.h"

namespace os {

bool IsConsole(StandardStream) noexcept { return false; }

size_t ReadConsoleUtf8(char* buffer, size_t size) noexcept { return ReadStandardInput(buffer, size); }

bool WriteConsoleUtf8(StandardStream stream, std::string_view bytes) noexcept {
    if (stream == StandardStream::kInput) return false;
    return stream == StandardStream::kError ? WriteStandardError(bytes) : WriteStandardOutput(bytes);
}

}  // namespace os
