// Console text arrives in pieces: a character split between two pieces comes
// out whole, and ill-formed input is replaced without stopping the stream.
#include <gtest/gtest.h>

#include <string>

#include "os/utf16_stream.h"

namespace {

// "é€😀" and a last ASCII letter: one, two and three UTF-8 continuation bytes,
// and a surrogate pair in UTF-16.
const std::string kUtf8 = "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
const std::u16string kUtf16 = u"\u00E9\u20AC\U0001F600z";
const std::string kReplacement = "\xEF\xBF\xBD";

TEST(Utf16Stream, ACharacterSplitBetweenTwoPiecesComesOutWhole) {
    for (size_t cut = 0; cut <= kUtf16.size(); ++cut) {
        os::Utf16ToUtf8Stream stream;
        std::string out = stream.Convert(std::u16string_view(kUtf16).substr(0, cut));
        out += stream.Convert(std::u16string_view(kUtf16).substr(cut));
        out += stream.Flush();
        EXPECT_EQ(out, kUtf8) << "cut after " << cut << " units";
    }
    for (size_t cut = 0; cut <= kUtf8.size(); ++cut) {
        os::Utf8ToUtf16Stream stream;
        std::u16string out = stream.Convert(std::string_view(kUtf8).substr(0, cut));
        out += stream.Convert(std::string_view(kUtf8).substr(cut));
        out += stream.Flush();
        EXPECT_EQ(out, kUtf16) << "cut after " << cut << " bytes";
    }
}

TEST(Utf16Stream, IllFormedInputIsReplacedAndTheStreamGoesOn) {
    os::Utf16ToUtf8Stream wide;
    // A low surrogate alone, a high one followed by a letter, and a high one
    // left at the end, which waits until the stream is flushed.
    EXPECT_EQ(wide.Convert(u"a\xDC00"
                           u"b\xD800"
                           u"c\xD83D"),
              "a" + kReplacement + "b" + kReplacement + "c");
    EXPECT_EQ(wide.Flush(), kReplacement);
    EXPECT_EQ(wide.Flush(), "");

    os::Utf8ToUtf16Stream bytes;
    // A stray continuation byte, an overlong form, an encoded surrogate and a
    // byte that leads nothing; then a sequence cut short by the flush.
    EXPECT_EQ(bytes.Convert("a\x80"
                            "b\xC0\xAF"
                            "c\xED\xA0\x80"
                            "d\xFF"
                            "e\xE2\x82"),
              u"a\uFFFDb\uFFFDc\uFFFDd\uFFFDe");
    EXPECT_EQ(bytes.Flush(), u"\uFFFD");
    EXPECT_EQ(bytes.Convert("f"), u"f");
}

}  // namespace
