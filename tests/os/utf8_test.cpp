#include <gtest/gtest.h>

#include "os/utf8.h"

TEST(Utf8, RoundTripsTextInsideAndOutsideTheBasicPlane) {
    const std::string text = "plain \xC3\xA9t\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF0\x90\x8D\x88";
    auto wide = os::Utf8ToWide(text);
    ASSERT_TRUE(wide);
    // U+1F600 is one code point: a surrogate pair where wchar_t is 16 bits.
    const std::wstring expected = L"plain \u00E9t\u00E9 \u20AC \U0001F600 \U00010348";
    EXPECT_EQ(*wide, expected);
    EXPECT_EQ(wide->size(), sizeof(wchar_t) == 2 ? 17u : 15u);
    EXPECT_EQ(os::WideToUtf8(*wide), text);
}

TEST(Utf8, MalformedInputIsRejectedOrReplaced) {
    for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "a\x80"}) {
        EXPECT_FALSE(os::Utf8ToWide(bad)) << "input " << bad;
        EXPECT_NE(os::Utf8ToWideLossy(bad).find(L'\uFFFD'), std::wstring::npos);
    }
    if constexpr (sizeof(wchar_t) == 2) {
        const std::wstring lone(1, static_cast<wchar_t>(0xD800));
        EXPECT_FALSE(os::WideToUtf8(lone));
        EXPECT_EQ(os::WideToUtf8Lossy(lone), "\xEF\xBF\xBD");
    } else {
        const std::wstring tooLarge(1, static_cast<wchar_t>(0x110000));
        EXPECT_FALSE(os::WideToUtf8(tooLarge));
    }
    EXPECT_EQ(os::Utf8ToWide(""), std::wstring());
}
