#include <gtest/gtest.h>

#include <cstdarg>

#include "host/log/windows_format.h"

namespace {
std::wstring Format(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    std::wstring text = host::FormatWindowsStyle(format, args);
    va_end(args);
    return text;
}
}  // namespace

TEST(WindowsFormat, StringsFollowTheWindowsConvention) {
    EXPECT_EQ(Format(L"[%s] [%ws] [%ls]", L"wide", L"ws", L"ls"), L"[wide] [ws] [ls]");
    EXPECT_EQ(Format(L"[%S] [%hs]", "narrow", "hs"), L"[narrow] [hs]");
    EXPECT_EQ(Format(L"%s|%S", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
              L"(null)|(null)");
    EXPECT_EQ(Format(L"[%-6s][%6s][%.2s]", L"ab", L"ab", L"abcdef"), L"[ab    ][    ab][ab]");
    EXPECT_EQ(Format(L"%S", "\xF0\x9F\x98\x80"), L"\U0001F600");
}

TEST(WindowsFormat, IntegersCharactersAndPercent) {
    EXPECT_EQ(Format(L"%d %i %u %x %X %%", -5, 42, 4000000000u, 255u, 255u), L"-5 42 4000000000 ff FF %");
    EXPECT_EQ(Format(L"%05d|%-4d|%+d", 42, 7, 3), L"00042|7   |+3");
    EXPECT_EQ(Format(L"%lld %I64d %zu", -1LL, 1LL << 40, static_cast<size_t>(12)), L"-1 1099511627776 12");
    EXPECT_EQ(Format(L"%c%C", L'w', 'n'), L"wn");
    EXPECT_EQ(Format(L"%*d", 4, 1), L"   1");
}

TEST(WindowsFormat, UnknownConversionsAndTruncatedFormatsAreCopied) {
    EXPECT_EQ(Format(L"a %q b"), L"a %q b");
    EXPECT_EQ(Format(L"end %"), L"end %");
    EXPECT_EQ(Format(nullptr), L"");
}

TEST(WindowsFormat, LengthModifiersPickTheArgumentSize) {
    // Read with the wrong size, a value loses its high bits or the later
    // arguments shift.
    EXPECT_EQ(Format(L"%hd %hu %hx", 65537, 0x1FFFFu, 0x12345u), L"1 65535 2345");
    EXPECT_EQ(Format(L"%ld %lu %llx %I64u %I32d", -7L, 7UL, 0x123456789ULL, 1ULL << 40, -3),
              L"-7 7 123456789 1099511627776 -3");
    EXPECT_EQ(Format(L"%Id %Iu %zd", -(static_cast<ptrdiff_t>(1) << 40), static_cast<size_t>(1) << 40,
                     static_cast<ptrdiff_t>(-9)),
              L"-1099511627776 1099511627776 -9");
    // An 'I' that starts no known modifier is one by itself; the conversion
    // that follows is unknown and takes no argument.
    EXPECT_EQ(Format(L"%I6d|%d", 5), L"%I6d|5");
}

TEST(WindowsFormat, CharacterWidthFollowsCaseAndModifier) {
    EXPECT_EQ(Format(L"%c%lc%wc%hc", 0x263A, 0x263A, 0x263A, 0x1E9), L"\u263A\u263A\u263A\u00E9");
    EXPECT_EQ(Format(L"%C%hC%lC%wC", 0x263A, 0x263A, 0x263A, 0x263A), L"::\u263A\u263A");
    EXPECT_EQ(Format(L"%hS|%lS|%wS|%hs|%ws", "a", L"b", L"c", "d", L"e"), L"a|b|c|d|e");
}

TEST(WindowsFormat, StarWidthAndPrecisionComeFromTheArguments) {
    EXPECT_EQ(Format(L"[%*d][%.*s][%-*s]", -4, 1, 2, L"abcdef", 3, L"x"), L"[1   ][ab][x  ]");
    EXPECT_EQ(Format(L"[%6.2s][%.0s]", L"abc", L"abc"), L"[    ab][]");
}
