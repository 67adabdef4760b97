#include "options.h"

#include <utility>

#include "qv/status.h"

namespace crhost {

namespace {
struct FlagOption {
    const wchar_t* name;
    bool Options::*flag;
};
constexpr FlagOption kFlagOptions[] = {
    {L"--help", &Options::help},
    {L"-h", &Options::help},
    {L"--pretty", &Options::pretty},
};

struct ValueOption {
    const wchar_t* name;
    std::wstring Options::*value;
};
constexpr ValueOption kValueOptions[] = {
    {L"--module", &Options::module},
    {L"--state", &Options::state},
    {L"--log", &Options::log},
    {L"--stop-limit", &Options::stopLimit},
};
constexpr uint64_t kMaxStopLimitMs = 86400000;

os::Status Refused(std::wstring reason) {
    return os::Status::Failure(qv::status::kInvalidParameter, std::move(reason));
}

// The milliseconds of `text`; nullopt when it is no whole number up to the limit.
std::optional<uint32_t> Milliseconds(const std::wstring& text) {
    uint64_t value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9' || (value = value * 10 + static_cast<uint64_t>(c - L'0')) > kMaxStopLimitMs)
            return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

// Sets the flag `argument` names; false when it names none.
bool SetFlag(const std::wstring& argument, Options& options) {
    for (const FlagOption& option : kFlagOptions) {
        if (argument != option.name) continue;
        options.*(option.flag) = true;
        return true;
    }
    return false;
}

// The value option `argument` names, alone ("--state") or with its value
// ("--state=FILE", the value then going to `inlineValue`); null when none.
const ValueOption* FindValueOption(const std::wstring& argument, std::optional<std::wstring>& inlineValue) {
    for (const ValueOption& option : kValueOptions) {
        const std::wstring name = option.name;
        if (argument == name) return &option;
        if (argument.size() > name.size() && argument.compare(0, name.size(), name) == 0 &&
            argument[name.size()] == L'=') {
            inlineValue = argument.substr(name.size() + 1);
            return &option;
        }
    }
    return nullptr;
}
}  // namespace

os::Expected<Options> ParseOptions(const std::vector<std::wstring>& arguments) {
    Options options;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::wstring& argument = arguments[i];
        if (SetFlag(argument, options)) continue;
        std::optional<std::wstring> value;
        const ValueOption* match = FindValueOption(argument, value);
        if (!match) {
            return Refused(L"unknown argument '" + argument + L"'");
        }
        if (!value) {
            if (i + 1 >= arguments.size()) {
                return Refused(std::wstring(match->name) + L" needs a value");
            }
            value = arguments[++i];
        }
        if (value->empty()) {
            return Refused(std::wstring(match->name) + L" needs a non-empty value");
        }
        options.*(match->value) = std::move(*value);
    }
    if (!options.stopLimit.empty()) {
        options.stopLimitMs = Milliseconds(options.stopLimit);
        if (!options.stopLimitMs) {
            return Refused(L"--stop-limit needs a number of milliseconds from 0 to 86400000, not '" +
                           options.stopLimit + L"'");
        }
    }
    return options;
}

const char* UsageText() {
    return "usage: cr-host [--module PATH] [--state FILE] [--log FILE] [--stop-limit MS] [--pretty] [--help]\n"
           "\n"
           "Loads the Conditional Runner module the way the agent host does and\n"
           "drives it through JSON lines on standard input and output (see README).\n"
           "\n"
           "  --module PATH  the module library (default: the one beside cr-host)\n"
           "  --state FILE   the settings store (default: cr-host-state.json in the\n"
           "                 working directory; a second start resumes from it)\n"
           "  --log FILE     the logging library's output (default: standard error)\n"
           "  --stop-limit MS  how long stopping waits for a method-set run in\n"
           "                 progress before giving it up (default: 180000)\n"
           "  --pretty       write for a person: explain trees drawn with their\n"
           "                 marks and observed values, one line per run and event\n"
           "  --help         this text\n"
           "\n"
           "Exit status: 0 after a clean stop (end of input, \"quit\", SIGINT, SIGTERM\n"
           "or a console control event), 1 when stopping the module failed, 2 for\n"
           "bad usage, 3 when the module cannot be loaded or started or the state\n"
           "file cannot be read.\n";
}

}  // namespace crhost
