#include "os/console.h"

#include <windows.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <string>

#include "os/utf16_stream.h"

namespace os {

namespace {

// Characters typed at the start of a line that end the input, as the C
// runtime reads a console: Ctrl+Z.
constexpr char16_t kEndOfInput = 0x1A;
// Units per ReadConsoleW and WriteConsoleW call: well below the console's
// own limits on one call.
constexpr DWORD kUnitsPerCall = 4096;

HANDLE HandleOf(StandardStream stream) noexcept {
    switch (stream) {
        case StandardStream::kInput:
            return ::GetStdHandle(STD_INPUT_HANDLE);
        case StandardStream::kOutput:
            return ::GetStdHandle(STD_OUTPUT_HANDLE);
        case StandardStream::kError:
            return ::GetStdHandle(STD_ERROR_HANDLE);
    }
    return nullptr;
}

struct Reader {
    std::mutex mutex;
    Utf16ToUtf8Stream decoder;  // guarded by mutex
    std::string ready;          // converted, not yet taken; guarded by mutex
    bool ended = false;         // guarded by mutex
};

struct Writer {
    std::mutex mutex;
    Utf8ToUtf16Stream encoder;  // guarded by mutex
};

Reader& TheReader() {
    static Reader reader;
    return reader;
}

Writer& WriterOf(StandardStream stream) {
    static Writer output, error;
    return stream == StandardStream::kError ? error : output;
}

// Reads more typed text into reader.ready; false at the end of input.
bool ReadMore(Reader& reader, HANDLE input) {
    char16_t units[kUnitsPerCall];
    DWORD read = 0;
    if (!::ReadConsoleW(input, units, kUnitsPerCall, &read, nullptr) || read == 0) return false;
    if (units[0] == kEndOfInput) return false;
    reader.ready += reader.decoder.Convert(std::u16string_view(units, read));
    return true;
}

}  // namespace

bool IsConsole(StandardStream stream) noexcept {
    const HANDLE handle = HandleOf(stream);
    DWORD mode = 0;
    return handle && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

size_t ReadConsoleUtf8(char* buffer, size_t size) noexcept {
    try {
        Reader& reader = TheReader();
        std::lock_guard lock(reader.mutex);
        const HANDLE input = HandleOf(StandardStream::kInput);
        // A read may give only half of a surrogate pair: read on until some
        // text is whole.
        while (reader.ready.empty() && !reader.ended)
            if (!ReadMore(reader, input)) {
                reader.ended = true;
                reader.ready += reader.decoder.Flush();
            }
        const size_t taken = std::min(size, reader.ready.size());
        reader.ready.copy(buffer, taken);
        reader.ready.erase(0, taken);
        return taken;
    } catch (const std::exception&) {
        return 0;  // out of memory: as a failed read
    }
}

bool WriteConsoleUtf8(StandardStream stream, std::string_view bytes) noexcept {
    if (stream == StandardStream::kInput) return false;
    try {
        Writer& writer = WriterOf(stream);
        std::lock_guard lock(writer.mutex);
        const std::u16string units = writer.encoder.Convert(bytes);
        const HANDLE console = HandleOf(stream);
        std::u16string_view left(units);
        while (!left.empty()) {
            DWORD chunk = static_cast<DWORD>(std::min<size_t>(left.size(), kUnitsPerCall));
            // A surrogate pair is never split between two calls.
            if (chunk < left.size() && left[chunk - 1] >= 0xD800 && left[chunk - 1] <= 0xDBFF) --chunk;
            DWORD written = 0;
            if (!::WriteConsoleW(console, left.data(), chunk, &written, nullptr) || written == 0) return false;
            left.remove_prefix(written);
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace os
