#include "json/strict_json.h"

#include <exception>
#include <memory>

#include <json/reader.h>

namespace strict_json {

namespace {

// The reader's messages on one line: line breaks become spaces, and trailing
// spaces are dropped.
std::string OneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

}  // namespace

Outcome Parse(std::string_view text, Json::Value& value, std::string* reason, Root root, int maxNesting) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = root == Root::kObjectOrArray;
    builder["stackLimit"] = maxNesting;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return Outcome::kParsed;
    } catch (const std::exception&) {
        // The reader throws when the nesting passes its stack limit.
        if (reason) *reason = "nested deeper than " + std::to_string(maxNesting) + " levels";
        return Outcome::kTooDeep;
    }
    if (reason) *reason = OneLine(std::move(errors));
    return Outcome::kMalformed;
}

}  // namespace strict_json
