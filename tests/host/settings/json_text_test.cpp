#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>

#include <json/reader.h>

#include "host/settings/json_text.h"

namespace {

using host::settings::AppendJson;
using host::settings::AppendQuoted;
using host::settings::AppendQuotedChecked;

Json::Value ReadBack(const std::string& text) {
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << text;
    return value;
}

}  // namespace

TEST(SettingsJsonText, QuotingEscapesOnlyWhatJsonRequiresAndTellsNonAscii) {
    std::string out;
    EXPECT_FALSE(AppendQuoted(std::string_view("a\"b\\c/\b\f\n\r\t\x01\x1f\x7f", 14), out));
    EXPECT_EQ(out, "\"a\\\"b\\\\c/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f\"");
    out.clear();
    const std::string nul("x\0y", 3);
    EXPECT_FALSE(AppendQuoted(nul, out));
    EXPECT_EQ(out, "\"x\\u0000y\"");
    out.clear();
    EXPECT_TRUE(AppendQuoted("caf\xc3\xa9 \xf0\x9f\x99\x82", out));
    EXPECT_EQ(out, "\"caf\xc3\xa9 \xf0\x9f\x99\x82\"");
    out.clear();
    AppendQuoted(std::wstring(L"\u00e9\"\n"), out);
    EXPECT_EQ(out, "\"\xc3\xa9\\\"\\n\"");

    // Text that is not UTF-8 is refused; plain ASCII is never rejected.
    out.clear();
    EXPECT_FALSE(AppendQuotedChecked("bad \xff byte", out));
    EXPECT_FALSE(AppendQuotedChecked("\xc3", out));
    EXPECT_TRUE(AppendQuotedChecked("\xc3\xa9", out));
    EXPECT_TRUE(AppendQuotedChecked("plain", out));
    for (const std::string& text : {std::string("a\"b\\c\n\x01 caf\xc3\xa9"), nul, std::string()}) {
        std::string quoted;
        ASSERT_TRUE(AppendQuotedChecked(text, quoted));
        EXPECT_EQ(ReadBack(quoted).asString(), text);
    }
}

TEST(SettingsJsonText, ValuesWrittenCompactReadBackEqualWithJsoncppsReader) {
    Json::Value value(Json::objectValue);
    value["int"] = Json::Value(Json::Int64(-9007199254740993));
    value["uint"] = Json::Value(std::numeric_limits<Json::UInt64>::max());
    value["real"] = 0.1;
    value["tiny"] = 5e-324;
    value["negative zero"] = -0.0;
    value["text"] = "line\nbreak \"quoted\" \xe2\x82\xac";
    value["flag"] = true;
    value["nothing"] = Json::Value();
    value["empty object"] = Json::Value(Json::objectValue);
    value["empty array"] = Json::Value(Json::arrayValue);
    value["\x01odd \"name\""] = 1;
    Json::Value& list = value["list"] = Json::Value(Json::arrayValue);
    list.append(1);
    list.append("two");
    list.append(Json::Value(Json::objectValue))["three"] = false;
    std::string out;
    ASSERT_TRUE(AppendJson(value, 10, out));
    EXPECT_EQ(out.find('\n'), std::string::npos);
    const Json::Value back = ReadBack(out);
    EXPECT_EQ(back, value) << out;
    EXPECT_EQ(back["uint"].asUInt64(), std::numeric_limits<Json::UInt64>::max());
    EXPECT_EQ(back["int"].asInt64(), Json::Int64(-9007199254740993));
    EXPECT_EQ(back["real"].asDouble(), 0.1);
}

TEST(SettingsJsonText, TooDeepOrNotUtf8IsRefused) {
    Json::Value nested = 1;
    for (int i = 0; i < 4; ++i) {
        Json::Value outer(Json::arrayValue);
        outer.append(nested);
        nested = outer;
    }
    std::string out;
    EXPECT_TRUE(AppendJson(nested, 5, out));
    EXPECT_EQ(out, "[[[[1]]]]");
    out.clear();
    EXPECT_FALSE(AppendJson(nested, 4, out));

    Json::Value badName(Json::objectValue);
    badName["\xff"] = 1;
    out.clear();
    EXPECT_FALSE(AppendJson(badName, 10, out));
    Json::Value badText(Json::arrayValue);
    badText.append("ok");
    badText.append("\xed\xa0\x80");  // an encoded surrogate
    out.clear();
    EXPECT_FALSE(AppendJson(badText, 10, out));
}
