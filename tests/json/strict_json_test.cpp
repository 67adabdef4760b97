#include <gtest/gtest.h>

#include <string>

#include "json/strict_json.h"

namespace {

using strict_json::Outcome;
using strict_json::Root;

Outcome ParseOf(const std::string& text, std::string* reason = nullptr, Root root = Root::kObjectOrArray,
                int maxNesting = strict_json::kDefaultMaxNesting) {
    Json::Value value;
    return strict_json::Parse(text, value, reason, root, maxNesting);
}

}  // namespace

TEST(StrictJson, OneValueIsReadAndAnythingLaxIsRefusedWithAOneLineReason) {
    Json::Value value;
    ASSERT_EQ(strict_json::Parse(R"({"a":[1,"two",null],"b":{"c":true}})", value), Outcome::kParsed);
    EXPECT_EQ(value["a"][1].asString(), "two");
    EXPECT_TRUE(value["b"]["c"].asBool());

    for (const std::string& lax :
         {std::string(R"({"a":1} {"b":2})"), std::string(R"({"a":1,"a":2})"), std::string("{\"a\":1} // note"),
          std::string("{'a':1}"), std::string(R"({"a":NaN})"), std::string("[1,]"), std::string(R"({"a":)")}) {
        std::string reason;
        EXPECT_EQ(ParseOf(lax, &reason), Outcome::kMalformed) << lax;
        EXPECT_FALSE(reason.empty()) << lax;
        EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
        EXPECT_NE(reason.back(), ' ') << reason;
    }
}

TEST(StrictJson, ABareValueAtTheTopIsReadOnlyWhenAsked) {
    for (const std::string& bare :
         {std::string("5"), std::string("\"text\""), std::string("true"), std::string("null")}) {
        EXPECT_EQ(ParseOf(bare), Outcome::kMalformed) << bare;
        EXPECT_EQ(ParseOf(bare, nullptr, Root::kAnyValue), Outcome::kParsed) << bare;
    }
    Json::Value value;
    ASSERT_EQ(strict_json::Parse("-2.5", value, nullptr, Root::kAnyValue), Outcome::kParsed);
    EXPECT_EQ(value.asDouble(), -2.5);
}

TEST(StrictJson, NestingBeyondTheLimitIsToldApart) {
    const std::string ten = std::string(10, '[') + std::string(10, ']');
    std::string reason;
    EXPECT_EQ(ParseOf(ten, &reason, Root::kObjectOrArray, 10), Outcome::kParsed);
    EXPECT_EQ(ParseOf(ten, &reason, Root::kObjectOrArray, 9), Outcome::kTooDeep);
    EXPECT_EQ(reason, "nested deeper than 9 levels");
    // The default limit holds too, instead of the reader's exception escaping.
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    EXPECT_EQ(ParseOf(deep), Outcome::kTooDeep);
}
