#pragma once
// The host program's command line:
//   --module PATH   the module library (default: the one built beside the program)
//   --state FILE    the settings store's file (default: cr-host-state.json in
//                   the working directory, so that a second start resumes)
//   --log FILE      where the reference logging library writes (default: its
//                   own, standard error)
//   --stop-limit MS how long stopping waits for a method-set run in progress
//                   before giving it up (default: the module's, 180000)
//   --pretty        write for a person: explain trees drawn, one line per run
//                   and event (default: JSON lines for programs)
//   --help
// Each option takes its value as the next argument or after '='
// ("--state=FILE").
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "os/status.h"

namespace crhost {

struct Options {
    static constexpr const wchar_t* kDefaultStateFile = L"cr-host-state.json";

    std::wstring module;  // empty: beside the program
    std::wstring state = kDefaultStateFile;
    std::wstring log;                     // empty: the logging library's default
    std::wstring stopLimit;               // as given; empty when not
    std::optional<uint32_t> stopLimitMs;  // its value; nullopt: the module's default
    bool pretty = false;
    bool help = false;
};

// The options of a command line; kInvalidParameter with the reason for one
// that cannot be used (an unknown argument, a missing value, a --stop-limit
// that is not a number of milliseconds from 0 to 86400000 included).
os::Expected<Options> ParseOptions(const std::vector<std::wstring>& arguments);

// The text --help prints.
const char* UsageText();

}  // namespace crhost
