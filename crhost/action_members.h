#pragma once
// Typed reading of the members of one host action's JSON object. Each reader
// checks the member's type before it looks inside, so that no value of the
// wrong type ever reaches jsoncpp's throwing accessors. The first member that
// is missing or of the wrong type is remembered with a sentence naming it
// by its path ("user.groups[1]"); later reads then answer null too.
//
// Text handed on to the host's services is refused when it holds a NUL:
// those services and the module see names as C strings, which would cut it.
//
// Thread rule: one reader per action, on the thread handling the line.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

namespace crhost {

enum class Presence { kRequired, kOptional };

class ActionMembers {
public:
    // Reads the members of `object`, whose own path is `path` ("" for the
    // line itself). `object` must outlive the reader.
    explicit ActionMembers(const Json::Value& object, std::string path = "");

    // The member `key` when it is an object, as a reader of its members (which
    // report their failures to this reader).
    std::optional<ActionMembers> Object(const char* key);
    // The member `key` when it is an array; an absent optional one is an empty array.
    const Json::Value* Array(const char* key, Presence presence);
    // A non-empty string without NUL.
    std::optional<std::wstring> Name(const char* key);
    // A string without NUL, possibly empty.
    std::optional<std::wstring> Text(const char* key);
    // A 32-bit signed integer.
    std::optional<int32_t> Int32(const char* key);
    // A whole number of milliseconds in [0, limit]; an absent optional one is 0.
    std::optional<uint32_t> Milliseconds(const char* key, uint32_t limit, Presence presence);
    // True, false or null (null: absent from the answer).
    std::optional<std::optional<bool>> BoolOrNull(const char* key);

    // The elements of array `array` (member `key`), each read as a name; null
    // with a failure naming the element ("groups[1]").
    std::optional<std::vector<std::wstring>> Names(const char* key, const Json::Value& array);
    // The element `index` of array `array` (member `key`) as an object reader.
    std::optional<ActionMembers> Element(const char* key, const Json::Value& array, Json::ArrayIndex index);

    bool ok() const { return error_->empty(); }
    // Why the first failed read failed; empty while none did.
    const std::string& error() const { return *error_; }

private:
    ActionMembers(const Json::Value& object, std::string path, std::shared_ptr<std::string> error);

    std::string PathOf(const std::string& key) const;
    // The member, or null (and a failure when it is required) when absent.
    const Json::Value* Find(const char* key, Presence presence, const char* expected);
    // Records the first failure; always returns null for the caller's convenience.
    std::nullopt_t Fail(const std::string& path, const char* expected);
    std::optional<std::wstring> TextAt(const Json::Value& value, const std::string& path, bool nonEmpty);

    const Json::Value* object_;
    std::string path_;
    std::shared_ptr<std::string> error_;
};

}  // namespace crhost
