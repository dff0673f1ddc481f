// Decoding pages and server output, and encoding what the command writes:
// what is refused and where it is said to be, and what becomes of
// characters an encoding cannot hold.
#include "Encoding.h"

#include <gtest/gtest.h>

#include "Utf8.h"

using namespace qzhost;

namespace {

// The decoded text, or the error with its offset and line as "invalid@N:L"
// or "nul@N:L".
std::u16string Decoded(std::string_view bytes, const std::string& encoding = "UTF-8") {
  std::u16string text;
  DecodeStop stop;
  DecodeError error = DecodeText(bytes, encoding, &text, &stop);
  if (error == DecodeError::kNone) return text;
  std::string why = (error == DecodeError::kNul ? "nul@" : "invalid@") + std::to_string(stop.byteOffset) + ":" +
                    std::to_string(stop.line);
  return std::u16string(why.begin(), why.end());
}

}  // namespace

TEST(EncodingTest, RefusesMalformedSequencesAtTheirFirstByte) {
  EXPECT_EQ(Decoded("a\xC1\xBF"), u"invalid@1:1") << "overlong two-byte form (C0 and C1 start none)";
  EXPECT_EQ(Decoded("ab\xE0\x80\xAF"), u"invalid@2:1") << "overlong three-byte form";
  EXPECT_EQ(Decoded("\xF0\x80\x80\xAF"), u"invalid@0:1") << "overlong four-byte form";
  EXPECT_EQ(Decoded("x\xED\xA0\x80"), u"invalid@1:1") << "encoded surrogate";
  EXPECT_EQ(Decoded("\xF4\x90\x80\x80"), u"invalid@0:1") << "beyond U+10FFFF";
  EXPECT_EQ(Decoded("\xF5\x80\x80\x80"), u"invalid@0:1") << "lead byte that never starts a sequence";
  EXPECT_EQ(Decoded("abc\xE2\x82"), u"invalid@3:1") << "cut off at the end";
  EXPECT_EQ(Decoded("\xE2\x82(\xAC"), u"invalid@0:1") << "continuation missing inside";
  EXPECT_EQ(Decoded("o\nk\xC3\xA9\xFF"), u"invalid@5:2") << "offset counts bytes, not characters";
  EXPECT_EQ(Decoded(std::string_view("a\n\0b", 4)), u"nul@2:2") << "NUL cannot go into a NUL-terminated text";
  // Other encodings, and lines counted in the text: U+0A0A is 0A 0A in
  // UTF-16LE, two line feeds to a count of bytes.
  EXPECT_EQ(Decoded(std::string_view("\x0A\x0A\x00\xD8x\0", 6), "UTF-16LE"), u"invalid@2:1") << "lone surrogate";
  EXPECT_EQ(Decoded(std::string_view("\n\0a\0b", 5), "UTF-16LE"), u"invalid@4:2") << "odd byte at the end";
  EXPECT_EQ(Decoded(std::string_view("\x0A\x0A\0\0", 4), "UTF-16LE"), u"nul@2:1") << "NUL of two bytes";
  EXPECT_EQ(Decoded("\x82\xA0\n\x82", "Shift_JIS"), u"invalid@3:2") << "lead byte cut off";
  EXPECT_EQ(Decoded("a\x81\x30\x81", "GB18030"), u"invalid@1:1") << "four-byte sequence cut off";
}

TEST(EncodingTest, AcceptsEveryWellFormedRangeAndUtf8DropsOneLeadingByteOrderMark) {
  std::u16string text;
  size_t at;
  EXPECT_EQ(DecodeUtf8("\xEF\xBB\xBF" "a\xEF\xBB\xBF", &text, &at), Utf8Error::kNone);
  EXPECT_EQ(text, u"a\uFEFF") << "only the first mark is dropped";
  EXPECT_EQ(DecodeUtf8("\xEF\xBB\xBF" "a\xFF", &text, &at), Utf8Error::kInvalid);
  EXPECT_EQ(at, 4u) << "offsets count the mark";
  EXPECT_EQ(Decoded("\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"),
            u"\x7F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF");
  EXPECT_EQ(Decoded("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), u"\U00010000\U0010FFFF") << "surrogate pairs";
}

TEST(EncodingTest, CharactersAnEncodingCannotHoldBecomeReferencesAtTheirPlaces) {
  EXPECT_EQ(Decoded(EncodeUtf8(u"a é € 😀 \U0010FFFF")), u"a é € 😀 \U0010FFFF");
  // A high one before a non-surrogate, a low one alone, a high one at the end.
  EXPECT_EQ(EncodeUtf8(std::u16string{u'a', char16_t(0xD800), u'b', char16_t(0xDC00), char16_t(0xD83D)}),
            "a\xEF\xBF\xBD" "b\xEF\xBF\xBD\xEF\xBF\xBD");
  std::vector<size_t> referenced;
  EXPECT_EQ(EncodeText(u"é Ω\n😀€", "windows-1252", &referenced), "\xE9 &#937;\n&#128512;\x80");
  EXPECT_EQ(referenced, (std::vector<size_t>{2, 4})) << "the index of the character's first unit";
  EXPECT_EQ(EncodeText(std::u16string{u'a', char16_t(0xDC00)}, "windows-1252", &referenced), "a&#65533;")
      << "a lone surrogate, as the U+FFFD that windows-1252 cannot hold either";
  EXPECT_EQ(referenced, (std::vector<size_t>{1}));
  // Past the size guessed for the output, and with the converter's state
  // carried across the growth.
  std::u16string many(5000, u'Ω');
  std::string written = EncodeText(many + u"日本", "ISO-2022-JP", &referenced);
  EXPECT_EQ(referenced.size(), 0u) << "ISO-2022-JP holds Ω";
  EXPECT_EQ(Decoded(written, "ISO-2022-JP"), many + u"日本");
  written = EncodeText(many, "US-ASCII", &referenced);
  EXPECT_EQ(written.size(), 5000 * 6u);
  EXPECT_EQ(referenced.size(), 5000u);
  EXPECT_EQ(referenced.back(), 4999u);
}
