#include <gtest/gtest.h>

#include <json/reader.h>

#include "model/json_composed_serializer.h"
#include "plugin/log.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

using qv::JsonComposedSerializer;
using testing_support::LogCapture;

namespace {

Json::Value Parse(const std::string& text) { return testing_support::ParseJson(text); }

const wchar_t* kLoad = L"JsonComposedSerializer::Load";

}  // namespace

TEST(JsonPath, ReadModeFollowsMembersAndIndexesWithEitherSeparator) {
    const Json::Value doc = Parse(R"({"a": {"b": [10, {"c": "deep"}, [1, [2, 3]]]}, "n": null})");
    for (const wchar_t* path : {L"a/b[1]/c", L"\\a\\b[1]\\c", L"/a/b[1]/c", L"a\\b[1]/c"}) {
        const Json::Value* found = JsonComposedSerializer::Find(doc, path);
        ASSERT_NE(found, nullptr) << path;
        EXPECT_EQ(found->asString(), "deep");
    }
    EXPECT_EQ(JsonComposedSerializer::Find(doc, L"a/b[2][1][0]")->asInt(), 2);
    EXPECT_EQ(JsonComposedSerializer::Find(doc, L"")->size(), doc.size());
    EXPECT_EQ(JsonComposedSerializer::Find(doc, L""), &doc);
    EXPECT_EQ(JsonComposedSerializer::Find(doc, L"/"), &doc);

    // A segment of only [i] indexes the current value.
    const Json::Value array = Parse("[5, 6]");
    EXPECT_EQ(JsonComposedSerializer::Find(array, L"[1]")->asInt(), 6);
    EXPECT_EQ(JsonComposedSerializer::Find(array, L"/[0]")->asInt(), 5);
}

TEST(JsonPath, ReadModeTreatsWrongShapesNullsAndMalformedPathsAsAbsent) {
    const Json::Value doc = Parse(R"({"obj": {"x": 1}, "arr": [1, 2], "n": null, "s": "t"})");
    for (const wchar_t* path : {L"missing", L"obj/y", L"obj[0]",  // object where an array is expected
                                L"arr/x", L"arr[2]", L"s/x", L"s[0]", L"n", L"obj/x/y", L"arr[", L"arr[]", L"arr[x]",
                                L"arr[-1]", L"arr[0]x", L"arr[99999999999999999999]"}) {
        EXPECT_EQ(JsonComposedSerializer::Find(doc, path), nullptr) << path;
    }
    EXPECT_EQ(JsonComposedSerializer::Find(Json::Value(), L""), nullptr);  // a null value itself
}

TEST(JsonPath, CreateModeBuildsObjectsAndGrowsArraysWithNulls) {
    Json::Value doc(Json::objectValue);
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"a/b[2]", L"v"));
    EXPECT_EQ(doc, Parse(R"({"a": {"b": [null, null, "v"]}})"));

    // Existing members stay; non-objects on the way are replaced by objects;
    // a non-array where an index is asked for becomes an array.
    doc["keep"] = 1;
    doc["scalar"] = "text";
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"\\scalar\\x", 7));
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"keep2[0]", true));
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"a/b[0]", uint32_t{4000000000u}));
    EXPECT_EQ(doc, Parse(R"({"a": {"b": [4000000000, null, "v"]}, "keep": 1, "scalar": {"x": 7}, "keep2": [true]})"));

    // The final value is handed back even when null; "/" is the value itself.
    Json::Value* slot = JsonComposedSerializer::FindOrCreate(doc, L"new");
    ASSERT_NE(slot, nullptr);
    EXPECT_TRUE(slot->isNull());
    EXPECT_EQ(JsonComposedSerializer::FindOrCreate(doc, L"/"), &doc);

    // A value taken from the same tree is copied before the path is created.
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"copy/inner", doc["a"]));
    EXPECT_EQ(doc["copy"]["inner"], doc["a"]);

    // Malformed paths and runaway indexes create nothing.
    const Json::Value before = doc;
    EXPECT_EQ(JsonComposedSerializer::FindOrCreate(doc, L"a[x]"), nullptr);
    EXPECT_EQ(JsonComposedSerializer::FindOrCreate(doc, L"big[1000000]"), nullptr);
    EXPECT_FALSE(JsonComposedSerializer::Store(doc, L"a[", 1));
    EXPECT_EQ(doc, before);

    EXPECT_EQ(JsonComposedSerializer::ElementPath(L"rules", 3), L"rules[3]");
}

TEST(JsonLoad, ReadsEachTypeAndLogsTheMemberItMisses) {
    const Json::Value doc = Parse(R"({"s": "text", "i": -5, "u": 7, "b": true, "t": {"k": []}, "n": null})");
    LogCapture log;
    std::wstring s;
    int32_t i = 0;
    uint32_t u = 0;
    bool b = false;
    Json::Value t;
    EXPECT_TRUE(JsonComposedSerializer::Load(doc, L"s", s));
    EXPECT_TRUE(JsonComposedSerializer::Load(doc, L"i", i));
    EXPECT_TRUE(JsonComposedSerializer::Load(doc, L"u", u));
    EXPECT_TRUE(JsonComposedSerializer::Load(doc, L"b", b));
    EXPECT_TRUE(JsonComposedSerializer::Load(doc, L"t", t));
    const auto expectLoaded = [&] {
        EXPECT_EQ(s, L"text");
        EXPECT_EQ(i, -5);
        EXPECT_EQ(u, 7u);
        EXPECT_TRUE(b);
        EXPECT_EQ(t, doc["t"]);
    };
    expectLoaded();
    EXPECT_TRUE(log.Lines().empty());

    // Mistyped or absent: false, output untouched, one line naming the path.
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"i", s));
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"s", i));
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"i", u));  // negative for an unsigned
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"u", b));  // numbers are not bools
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"n", t));  // null counts as absent
    EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"t/k[0]", t));
    expectLoaded();
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0].level, logging::kDetail);
    EXPECT_EQ(lines[0].function, kLoad);
    EXPECT_EQ(lines[0].message, L"Failed to load subnode i");
    EXPECT_EQ(lines[5].message, L"Failed to load subnode t/k[0]");
}

TEST(JsonLoad, TextCrossesTheBoundaryAsUtf8IncludingCharactersOutsideTheBmp) {
    // U+1F600 and U+00E9: a surrogate pair where wchar_t is 16 bits, one unit where it is 32.
    const std::wstring text = L"smile \U0001F600 caf\u00E9";
    Json::Value doc;
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"t", text));
    EXPECT_EQ(doc["t"].asString(), "smile \xF0\x9F\x98\x80 caf\xC3\xA9");

    // Through JSON text and back, including the \u escape form of a pair.
    const Json::Value reparsed = Parse(doc.toStyledString());
    std::wstring back;
    ASSERT_TRUE(JsonComposedSerializer::Load(reparsed, L"t", back));
    EXPECT_EQ(back, text);
    ASSERT_TRUE(JsonComposedSerializer::Load(Parse(R"({"t": "\ud83d\ude00"})"), L"t", back));
    EXPECT_EQ(back, L"\U0001F600");

    // Member names are UTF-8 too.
    ASSERT_TRUE(JsonComposedSerializer::Store(doc, L"\u00FCber/\U0001F600", 1));
    EXPECT_EQ(doc["\xC3\xBC"
                  "ber"]["\xF0\x9F\x98\x80"]
                  .asInt(),
              1);
}

TEST(JsonLoad, InvalidUtf8IsACleanFailure) {
    LogCapture log;
    const std::string bad[] = {"\xC3\x28", "abc\xFF", "\xE2\x82", "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80"};
    for (const std::string& raw : bad) {
        Json::Value doc;
        doc["s"] = Json::Value(raw);
        std::wstring out = L"before";
        EXPECT_FALSE(JsonComposedSerializer::Load(doc, L"s", out));
        EXPECT_EQ(out, L"before");
    }
    // The same bytes arriving through the JSON parser.
    Json::Value parsed = Parse("{\"s\": \"x\xFFy\"}");
    std::wstring out;
    EXPECT_FALSE(JsonComposedSerializer::Load(parsed, L"s", out));
    EXPECT_EQ(log.Messages(16).size(), std::size(bad) + 1);
}

TEST(JsonPath, CreateModeViewMatchesCreateModeWithoutChangingTheValue) {
    const Json::Value doc = Parse(R"({"obj": {"x": 1}, "arr": [1, {"y": 2}], "n": null, "s": "t"})");
    for (const wchar_t* path : {L"", L"/", L"obj/x", L"arr[1]/y", L"n", L"missing", L"obj/y/z", L"arr[5]", L"s/x",
                                L"s[0]", L"obj[0]", L"arr/x"}) {
        Json::Value created = doc;
        const Json::Value* view = JsonComposedSerializer::FindAsCreated(doc, path);
        ASSERT_NE(view, nullptr) << path;
        EXPECT_EQ(*view, *JsonComposedSerializer::FindOrCreate(created, path)) << path;
    }
    EXPECT_EQ(JsonComposedSerializer::FindAsCreated(doc, L""), &doc);
    EXPECT_EQ(JsonComposedSerializer::FindAsCreated(doc, L"arr[x]"), nullptr);
    EXPECT_EQ(doc, Parse(R"({"obj": {"x": 1}, "arr": [1, {"y": 2}], "n": null, "s": "t"})"));
}
