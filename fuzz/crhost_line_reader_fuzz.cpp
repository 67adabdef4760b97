// cr-host's console input: the bytes cut into lines as cr-host cuts them
// (in pieces of varying size, with a small line limit so that too long lines
// occur), and each line answered by cr-host's console over the module loaded
// from beside this program. Properties: the lines are exactly the input's
// (split at LF, a CR before it dropped, a last line kept when it holds
// anything, numbered from 1, too long ones marked); a blank line gets no
// answer, any other exactly one line of output that is a strict JSON object:
// {"error", "line"} with the line's number, or an answer with its "status"
// and its "method" or "host". After "quit" or "exit" no line is handled, as
// in cr-host.
//
// Lines that name "delayMs" are not handed on: a policy run that waits would
// hold the runner, and the fuzzer, for up to a day.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "console.h"
#include "fuzz_check.h"
#include "hosted_module.h"
#include "json/strict_json.h"
#include "line_splitter.h"
#include "os/utf8.h"
#include "output.h"
#include "scratch_folder.h"
#include "stop_request.h"

namespace {

constexpr size_t kLineLimit = 200;

// The module hosted as cr-host hosts it, and a console writing into
// `written`, made once for the whole run. A stop is requested from the
// start, so that "sleep" answers at once.
class Bench {
public:
    Bench()
        : folder_("crhost"),
          hosted_(OpenStore(folder_.path() / "state.json")),
          output_(crhost::Output::Format::kJsonLines, [this](const std::string& line) { written_.push_back(line); }) {
        const std::filesystem::path module =
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "libConditionalRunner.so";
        const os::Status started = hosted_.Start(module.wstring());
        FUZZ_CHECK(started.ok(), "the module does not start: %s", os::WideToUtf8Lossy(started.message()).c_str());
        stop_.Request();
        console_ =
            std::make_unique<crhost::Console>(hosted_, output_, stop_, (folder_.path() / "state.json").wstring());
    }
    ~Bench() {
        console_.reset();
        static_cast<void>(hosted_.Stop());
    }

    crhost::Console& console() { return *console_; }
    // Output lines are written on this thread only: no evaluation sink is set.
    std::vector<std::string>& written() { return written_; }

private:
    static std::unique_ptr<host::SettingsStore> OpenStore(const std::filesystem::path& file) {
        os::Expected<std::unique_ptr<host::SettingsStore>> store = host::SettingsStore::Open(file.wstring());
        FUZZ_CHECK(store.ok(), "no state file: %s", os::WideToUtf8Lossy(store.status().message()).c_str());
        return std::move(*store);
    }

    fuzz_support::ScratchFolder folder_;
    crhost::HostedModule hosted_;
    std::vector<std::string> written_;
    crhost::Output output_;
    crhost::StopRequest stop_;
    std::unique_ptr<crhost::Console> console_;
};

Bench& TheBench() {
    static Bench bench;  // stopped when the process ends
    return bench;
}

// The lines of `input` worked out here, without the splitter.
std::vector<crhost::InputLine> ExpectedLines(std::string_view input) {
    std::vector<crhost::InputLine> lines;
    size_t at = 0;
    while (at < input.size()) {
        const size_t newline = input.find('\n', at);
        std::string text(input.substr(at, newline == std::string_view::npos ? std::string_view::npos : newline - at));
        if (!text.empty() && text.back() == '\r') text.pop_back();
        crhost::InputLine line;
        line.number = lines.size() + 1;
        line.tooLong = text.size() > kLineLimit;
        if (!line.tooLong) line.text = std::move(text);
        lines.push_back(std::move(line));
        if (newline == std::string_view::npos) break;
        at = newline + 1;
    }
    return lines;
}

bool Blank(const crhost::InputLine& line) {
    return !line.tooLong && line.text.find_first_not_of(" \t\r") == std::string::npos;
}

void CheckAnswer(const crhost::InputLine& line, const std::string& answer) {
    FUZZ_CHECK(!answer.empty() && answer.back() == '\n' && answer.find('\n') == answer.size() - 1,
               "line %llu: the answer is not one line: %s", static_cast<unsigned long long>(line.number),
               answer.c_str());
    Json::Value json;
    const bool parsed = strict_json::Parse(std::string_view(answer).substr(0, answer.size() - 1), json) ==
                        strict_json::Outcome::kParsed;
    FUZZ_CHECK(parsed && json.isObject(), "line %llu: the answer is not a JSON object: %s",
               static_cast<unsigned long long>(line.number), answer.c_str());
    if (json.isMember("line")) {
        FUZZ_CHECK(json.size() == 2 && json["error"].isString() && json["line"].isUInt64() &&
                       json["line"].asUInt64() == line.number,
                   "line %llu: a refusal that is not {\"error\", \"line\"} of this line: %s",
                   static_cast<unsigned long long>(line.number), answer.c_str());
        return;
    }
    FUZZ_CHECK(json["status"].isInt() && (json["method"].isString() || json["host"].isString()),
               "line %llu: an answer without its status and command: %s", static_cast<unsigned long long>(line.number),
               answer.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bench& bench = TheBench();
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::vector<crhost::InputLine> expected = ExpectedLines(input);

    std::vector<crhost::InputLine> lines;
    const crhost::LineSplitter::Emit take = [&](crhost::InputLine line) {
        lines.push_back(std::move(line));
        return true;
    };
    crhost::LineSplitter splitter(kLineLimit);
    const size_t piece = 1 + size % 13;
    for (size_t at = 0; at < size; at += piece)
        FUZZ_CHECK(splitter.Feed(input.data() + at, std::min(piece, size - at), take), "the splitter stopped");
    FUZZ_CHECK(splitter.Finish(take), "the splitter stopped at the end");

    FUZZ_CHECK(lines.size() == expected.size(), "%zu lines cut, %zu in the input", lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i)
        FUZZ_CHECK(lines[i].number == expected[i].number && lines[i].tooLong == expected[i].tooLong &&
                       lines[i].text == expected[i].text,
                   "line %zu is cut as number %llu, %s, \"%s\"", i + 1,
                   static_cast<unsigned long long>(lines[i].number), lines[i].tooLong ? "too long" : "kept",
                   lines[i].text.c_str());

    for (const crhost::InputLine& line : lines) {
        if (line.text.find("delayMs") != std::string::npos) continue;
        bench.written().clear();
        const crhost::Console::Next next = bench.console().Handle(line);
        if (Blank(line)) {
            FUZZ_CHECK(bench.written().empty(), "line %llu is blank and was answered",
                       static_cast<unsigned long long>(line.number));
        } else {
            FUZZ_CHECK(bench.written().size() == 1, "line %llu got %zu answers",
                       static_cast<unsigned long long>(line.number), bench.written().size());
            CheckAnswer(line, bench.written().front());
        }
        if (next != crhost::Console::Next::kGoOn) break;
    }
    return 0;
}
