#pragma once
// Captures the module's log lines for one test: points the reference logging
// library at a fresh file and keeps the logging façade alive meanwhile.
#include <cstdint>
#include <string>
#include <vector>

#include "plugin/log.h"

namespace testing_support {

struct LogLine {
    std::wstring time;    // when it was written, UTC
    uint32_t thread = 0;  // the writing thread's system id
    int level = 0;
    int nesting = 0;
    std::wstring function;
    std::wstring message;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    // Lines written since construction (or the last Clear).
    std::vector<LogLine> Lines() const;
    // Messages only, optionally only those of one level.
    std::vector<std::wstring> Messages(int level = 0) const;
    bool Contains(const std::wstring& message) const;
    bool Contains(int level, const std::wstring& function, const std::wstring& message) const;
    void Clear();
    const std::wstring& path() const noexcept { return path_; }

private:
    logging::ScopedLogHolder holder_;
    std::wstring path_;
};

// A fresh empty directory under the system's temporary folder, removed on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::wstring& path() const noexcept { return path_; }
    std::wstring File(const std::wstring& name) const;

private:
    std::wstring path_;
};

// Whether the UTF-8 file at `path` contains `text`.
bool FileContains(const std::wstring& path, const std::wstring& text);

// Folder of the running test program (where the module and log library are built).
std::wstring ProgramDirectory();

}  // namespace testing_support
