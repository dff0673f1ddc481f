// Decoding pages and server output: what is refused, and where it is said to be.
#include "Utf8.h"

#include <gtest/gtest.h>

using namespace qzhost;

namespace {

// Decodes and returns the error with its offset as "kind@offset", or the
// decoded text's length as "ok:N".
std::string Outcome(std::string_view bytes) {
  std::u16string text;
  size_t at = 99;
  switch (DecodeUtf8(bytes, &text, &at)) {
    case Utf8Error::kNone: return "ok:" + std::to_string(text.size());
    case Utf8Error::kInvalid: return "invalid@" + std::to_string(at);
    case Utf8Error::kNul: return "nul@" + std::to_string(at);
  }
  return "?";
}

}  // namespace

TEST(Utf8Test, RefusesMalformedSequencesAtTheirFirstByte) {
  EXPECT_EQ(Outcome("ab\x80" "c"), "invalid@2") << "stray continuation byte";
  EXPECT_EQ(Outcome("a\xC0\x80"), "invalid@1") << "overlong NUL";
  EXPECT_EQ(Outcome("a\xC1\xBF"), "invalid@1") << "overlong two-byte form";
  EXPECT_EQ(Outcome("ab\xE0\x80\xAF"), "invalid@2") << "overlong three-byte form";
  EXPECT_EQ(Outcome("\xF0\x80\x80\xAF"), "invalid@0") << "overlong four-byte form";
  EXPECT_EQ(Outcome("x\xED\xA0\x80"), "invalid@1") << "encoded surrogate";
  EXPECT_EQ(Outcome("\xF4\x90\x80\x80"), "invalid@0") << "beyond U+10FFFF";
  EXPECT_EQ(Outcome("\xF5\x80\x80\x80"), "invalid@0") << "lead byte that never starts a sequence";
  EXPECT_EQ(Outcome("abc\xE2\x82"), "invalid@3") << "cut off at the end";
  EXPECT_EQ(Outcome("\xE2(\xAC"), "invalid@0") << "continuation missing inside";
  EXPECT_EQ(Outcome("ok\xC3\xA9\xFF"), "invalid@4") << "offset counts bytes, not characters";
  EXPECT_EQ(Outcome(std::string_view("a\0b", 3)), "nul@1") << "NUL cannot go into a NUL-terminated text";
}

TEST(Utf8Test, AcceptsEveryWellFormedRangeAndOneLeadingByteOrderMark) {
  EXPECT_EQ(Outcome(""), "ok:0");
  EXPECT_EQ(Outcome("\xEF\xBB\xBF"), "ok:0");
  EXPECT_EQ(Outcome("\xEF\xBB\xBF" "a\xEF\xBB\xBF"), "ok:2") << "only the first mark is dropped";
  EXPECT_EQ(Outcome("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"), "ok:7");
  EXPECT_EQ(Outcome("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), "ok:4") << "two surrogate pairs";

  std::u16string text;
  size_t at;
  ASSERT_EQ(DecodeUtf8("é😀", &text, &at), Utf8Error::kNone);
  EXPECT_EQ(text, u"é😀");
}

TEST(Utf8Test, EncodingRoundTripsAndReplacesLoneSurrogates) {
  std::u16string text = u"a é € 😀 \U0010FFFF";
  std::u16string back;
  size_t at;
  ASSERT_EQ(DecodeUtf8(EncodeUtf8(text), &back, &at), Utf8Error::kNone);
  EXPECT_EQ(back, text);
  EXPECT_EQ(EncodeUtf8(std::u16string{u'a', char16_t(0xD800), u'b'}), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(EncodeUtf8(std::u16string{char16_t(0xDC00)}), "\xEF\xBF\xBD");
  EXPECT_EQ(EncodeUtf8(std::u16string{char16_t(0xD83D)}), "\xEF\xBF\xBD") << "high surrogate at the end";
}

TEST(Utf8Test, LineOfByteCountsLineFeedsBeforeIt) {
  EXPECT_EQ(LineOfByte("a\nb\nc", 0), 1u);
  EXPECT_EQ(LineOfByte("a\nb\nc", 2), 2u);
  EXPECT_EQ(LineOfByte("a\nb\nc", 4), 3u);
}
