#pragma once
// Strict reading of JSON text, the one reader setup shared by everything that
// takes JSON from outside (a console line, a stored value, a response): one
// value and nothing after it, no comments, no duplicate member names, no
// single quotes or special numbers, and a bounded nesting. Stateless: any
// thread.
#include <string>
#include <string_view>

#include <json/value.h>

namespace strict_json {

// What the text may be at its top level.
enum class Root {
    kObjectOrArray,  // a JSON document proper
    kAnyValue,       // also a number, a string, a bool or null
};

enum class Outcome {
    kParsed,
    kMalformed,  // not (strict) JSON
    kTooDeep,    // nested deeper than the limit
};

// The reader's nesting limit unless the caller asks for another.
constexpr int kDefaultMaxNesting = 1000;

// Parses `text` into `value`. Anything but kParsed leaves `reason` (when
// given) with one line saying why: the reader's messages, or "nested deeper
// than <maxNesting> levels".
[[nodiscard]] Outcome Parse(std::string_view text, Json::Value& value, std::string* reason = nullptr,
                            Root root = Root::kObjectOrArray, int maxNesting = kDefaultMaxNesting);

}  // namespace strict_json
