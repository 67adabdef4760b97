#include "action_members.h"

#include "os/utf8.h"

namespace crhost {

ActionMembers::ActionMembers(const Json::Value& object, std::string path)
    : ActionMembers(object, std::move(path), std::make_shared<std::string>()) {}

ActionMembers::ActionMembers(const Json::Value& object, std::string path, std::shared_ptr<std::string> error)
    : object_(&object), path_(std::move(path)), error_(std::move(error)) {}

std::string ActionMembers::PathOf(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }

std::nullopt_t ActionMembers::Fail(const std::string& path, const char* expected) {
    if (error_->empty()) *error_ = "\"" + path + "\" must be " + expected;
    return std::nullopt;
}

const Json::Value* ActionMembers::Find(const char* key, Presence presence, const char* expected) {
    if (!ok()) return nullptr;
    // Only an object is searched: jsoncpp throws for a member of anything else.
    const Json::Value* member =
        object_->isObject() ? object_->find(key, key + std::char_traits<char>::length(key)) : nullptr;
    if (!member && presence == Presence::kRequired) Fail(PathOf(key), expected);
    return member;
}

std::optional<std::wstring> ActionMembers::TextAt(const Json::Value& value, const std::string& path, bool nonEmpty) {
    const char* expected = nonEmpty ? "a non-empty string without NUL" : "a string without NUL";
    if (!value.isString()) return Fail(path, expected);
    const std::string& text = value.asString();
    if ((nonEmpty && text.empty()) || text.find('\0') != std::string::npos) return Fail(path, expected);
    // The console took the line as UTF-8 already.
    return os::Utf8ToWideLossy(text);
}

std::optional<ActionMembers> ActionMembers::Object(const char* key) {
    const Json::Value* member = Find(key, Presence::kRequired, "an object");
    if (!member) return std::nullopt;
    if (!member->isObject()) return Fail(PathOf(key), "an object");
    return ActionMembers(*member, PathOf(key), error_);
}

const Json::Value* ActionMembers::Array(const char* key, Presence presence) {
    static const Json::Value kEmpty(Json::arrayValue);
    const Json::Value* member = Find(key, presence, "a list");
    if (!member) return ok() ? &kEmpty : nullptr;
    if (!member->isArray()) {
        Fail(PathOf(key), "a list");
        return nullptr;
    }
    return member;
}

std::optional<std::wstring> ActionMembers::Name(const char* key) {
    const Json::Value* member = Find(key, Presence::kRequired, "a non-empty string without NUL");
    return member ? TextAt(*member, PathOf(key), true) : std::nullopt;
}

std::optional<std::wstring> ActionMembers::Text(const char* key) {
    const Json::Value* member = Find(key, Presence::kRequired, "a string without NUL");
    return member ? TextAt(*member, PathOf(key), false) : std::nullopt;
}

std::optional<int32_t> ActionMembers::Int32(const char* key) {
    const char* expected = "a 32-bit integer";
    const Json::Value* member = Find(key, Presence::kRequired, expected);
    if (!member) return std::nullopt;
    if (!member->isIntegral() || !member->isInt()) return Fail(PathOf(key), expected);
    return member->asInt();
}

std::optional<uint32_t> ActionMembers::Milliseconds(const char* key, uint32_t limit, Presence presence) {
    const std::string expected = "a whole number of milliseconds from 0 to " + std::to_string(limit);
    const Json::Value* member = Find(key, presence, expected.c_str());
    if (!member) return ok() ? std::optional<uint32_t>(0) : std::nullopt;
    if (!member->isIntegral() || !member->isUInt64() || member->asUInt64() > limit)
        return Fail(PathOf(key), expected.c_str());
    return static_cast<uint32_t>(member->asUInt64());
}

std::optional<std::optional<bool>> ActionMembers::BoolOrNull(const char* key) {
    const char* expected = "true, false or null";
    const Json::Value* member = Find(key, Presence::kRequired, expected);
    if (!member) return std::nullopt;
    if (!member->isNull() && !member->isBool()) return Fail(PathOf(key), expected);
    std::optional<std::optional<bool>> value{std::in_place};
    if (member->isBool()) *value = member->asBool();
    return value;
}

std::optional<std::vector<std::wstring>> ActionMembers::Names(const char* key, const Json::Value& array) {
    std::vector<std::wstring> names;
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        std::optional<std::wstring> name = TextAt(array[i], PathOf(key) + "[" + std::to_string(i) + "]", true);
        if (!name) return std::nullopt;
        names.push_back(std::move(*name));
    }
    return names;
}

std::optional<ActionMembers> ActionMembers::Element(const char* key, const Json::Value& array, Json::ArrayIndex index) {
    const std::string path = PathOf(key) + "[" + std::to_string(index) + "]";
    if (!ok()) return std::nullopt;
    if (!array[index].isObject()) return Fail(path, "an object");
    return ActionMembers(array[index], path, error_);
}

}  // namespace crhost
