#pragma once
// The host program's standard output: one compact JSON object per line.
// Answers, events and policy runs come from different threads; each object
// is written whole, so lines never interleave.
//
// Thread rule: Write from any thread.
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include <json/value.h>

namespace crhost {

// What the host writes beside a non-zero status for the person reading it:
// the system's name of the status ("ERROR_INVALID_PARAMETER"), or "unknown
// status".
const char* StatusName(int32_t status);

// `value` as compact JSON text, without a newline (UTF-8 kept as it is).
// Any thread.
std::string CompactJson(const Json::Value& value);

class Output {
public:
    // JSON lines for programs (the default), or text for a person (--pretty).
    enum class Format { kJsonLines, kPretty };

    explicit Output(Format format = Format::kJsonLines);
    // Writes to `sink` instead of standard output (each call one whole line,
    // under the output's lock), for reading the answers back in process.
    using Sink = std::function<void(const std::string& line)>;
    Output(Format format, Sink sink);
    // Writes `object` and a newline (in the pretty format, its text). Output
    // that can no longer be written (the reader went away) is dropped: the
    // host goes on until its input ends or it is told to stop.
    void Write(const Json::Value& object);

private:
    const Format format_;
    const Sink sink_;  // empty: standard output
    std::mutex mutex_;
};

}  // namespace crhost
