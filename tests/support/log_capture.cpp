#include "support/log_capture.h"

#include <atomic>
#include <filesystem>
#include <sstream>

#include "os/environment.h"
#include "os/file_io.h"
#include "os/module.h"
#include "os/utf8.h"

namespace testing_support {
namespace {

std::wstring NewTempPath(const wchar_t* prefix) {
    static std::atomic<int> counter{0};
    const auto base = std::filesystem::temp_directory_path();
    std::wstring name = std::wstring(prefix) +
                        std::to_wstring(std::chrono::steady_clock::now().time_since_epoch().count()) + L"-" +
                        std::to_wstring(counter++);
    return (base / name).wstring();
}

std::string ReadAll(const std::wstring& path) {
    os::FilePtr file = os::OpenFile(path, L"rb");
    std::string text;
    if (!file) return text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) text.append(buffer, n);
    return text;
}

}  // namespace

LogCapture::LogCapture() : path_(NewTempPath(L"cr-log-") + L".txt") { os::SetEnv(L"CR_LOG_FILE", path_); }

LogCapture::~LogCapture() {
    std::error_code ec;
    std::filesystem::remove(std::filesystem::path(path_), ec);
}

void LogCapture::Clear() { os::FilePtr file = os::OpenFile(path_, L"wb"); }

std::vector<LogLine> LogCapture::Lines() const {
    std::vector<LogLine> lines;
    std::istringstream in(ReadAll(path_));
    std::string raw;
    while (std::getline(in, raw)) {
        // time, thread, level, nesting step, function, then the message (which may hold tabs)
        const std::wstring text = os::Utf8ToWideLossy(raw);
        size_t tabs[5];
        size_t from = 0;
        bool whole = true;
        for (size_t& tab : tabs) {
            tab = text.find(L'\t', from);
            if (tab == std::wstring::npos) {
                whole = false;
                break;
            }
            from = tab + 1;
        }
        if (!whole) continue;
        LogLine line;
        line.time = text.substr(0, tabs[0]);
        line.thread = static_cast<uint32_t>(std::stoul(text.substr(tabs[0] + 1, tabs[1] - tabs[0] - 1)));
        line.level = std::stoi(text.substr(tabs[1] + 1, tabs[2] - tabs[1] - 1));
        line.nesting = std::stoi(text.substr(tabs[2] + 1, tabs[3] - tabs[2] - 1));
        line.function = text.substr(tabs[3] + 1, tabs[4] - tabs[3] - 1);
        line.message = text.substr(tabs[4] + 1);
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<std::wstring> LogCapture::Messages(int level) const {
    std::vector<std::wstring> messages;
    for (auto& line : Lines())
        if (level == 0 || line.level == level) messages.push_back(line.message);
    return messages;
}

bool LogCapture::Contains(const std::wstring& message) const {
    for (auto& line : Lines())
        if (line.message == message) return true;
    return false;
}

bool LogCapture::Contains(int level, const std::wstring& function, const std::wstring& message) const {
    for (auto& line : Lines())
        if (line.level == level && line.function == function && line.message == message) return true;
    return false;
}

TempDir::TempDir() : path_(NewTempPath(L"cr-test-")) {
    std::filesystem::create_directories(std::filesystem::path(path_));
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(path_), ec);
}

std::wstring TempDir::File(const std::wstring& name) const { return os::JoinPath(path_, name); }

bool FileContains(const std::wstring& path, const std::wstring& text) {
    return ReadAll(path).find(os::WideToUtf8Lossy(text)) != std::string::npos;
}

std::wstring ProgramDirectory() {
    static const int anchor = 0;
    return os::DirectoryOf(os::ModulePathOf(&anchor));
}

}  // namespace testing_support
