// Decoding pages and server output: what is refused, and where it is said to be.
#include "Utf8.h"

#include <gtest/gtest.h>

using namespace qzhost;

// The decoded text, or the error with its offset as "invalid@N" or "nul@N".
static std::u16string Decoded(std::string_view bytes) {
  std::u16string text;
  size_t at;
  Utf8Error error = DecodeUtf8(bytes, &text, &at);
  if (error == Utf8Error::kNone) return text;
  std::string why = (error == Utf8Error::kNul ? "nul@" : "invalid@") + std::to_string(at);
  return std::u16string(why.begin(), why.end());
}

TEST(Utf8Test, RefusesMalformedSequencesAtTheirFirstByte) {
  EXPECT_EQ(Decoded("a\xC1\xBF"), u"invalid@1") << "overlong two-byte form (C0 and C1 start none)";
  EXPECT_EQ(Decoded("ab\xE0\x80\xAF"), u"invalid@2") << "overlong three-byte form";
  EXPECT_EQ(Decoded("\xF0\x80\x80\xAF"), u"invalid@0") << "overlong four-byte form";
  EXPECT_EQ(Decoded("x\xED\xA0\x80"), u"invalid@1") << "encoded surrogate";
  EXPECT_EQ(Decoded("\xF4\x90\x80\x80"), u"invalid@0") << "beyond U+10FFFF";
  EXPECT_EQ(Decoded("\xF5\x80\x80\x80"), u"invalid@0") << "lead byte that never starts a sequence";
  EXPECT_EQ(Decoded("abc\xE2\x82"), u"invalid@3") << "cut off at the end";
  EXPECT_EQ(Decoded("\xE2\x82(\xAC"), u"invalid@0") << "continuation missing inside";
  EXPECT_EQ(Decoded("ok\xC3\xA9\xFF"), u"invalid@4") << "offset counts bytes, not characters";
  EXPECT_EQ(Decoded(std::string_view("a\0b", 3)), u"nul@1") << "NUL cannot go into a NUL-terminated text";
  // Messages give the line too: a line feed belongs to the line it ends.
  EXPECT_EQ(LineOfByte("a\nb\nc", 1), 1u);
  EXPECT_EQ(LineOfByte("a\nb\nc", 4), 3u);
}

TEST(Utf8Test, AcceptsEveryWellFormedRangeAndOneLeadingByteOrderMark) {
  EXPECT_EQ(Decoded("\xEF\xBB\xBF"), u"");
  EXPECT_EQ(Decoded("\xEF\xBB\xBF" "a\xEF\xBB\xBF"), u"a\uFEFF") << "only the first mark is dropped";
  EXPECT_EQ(Decoded("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"),
            u"\x7F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF");
  EXPECT_EQ(Decoded("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), u"\U00010000\U0010FFFF") << "surrogate pairs";
}

TEST(Utf8Test, EncodingRoundTripsAndReplacesLoneSurrogates) {
  EXPECT_EQ(Decoded(EncodeUtf8(u"a é € 😀 \U0010FFFF")), u"a é € 😀 \U0010FFFF");
  // A high one before a non-surrogate, a low one alone, a high one at the end.
  EXPECT_EQ(EncodeUtf8(std::u16string{u'a', char16_t(0xD800), u'b', char16_t(0xDC00), char16_t(0xD83D)}),
            "a\xEF\xBF\xBD" "b\xEF\xBF\xBD\xEF\xBF\xBD");
}
