// The stand-in UTF-16 library: its tables, the conversions the extension
// formats and scans with, and the buffer bounds of both.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <string>
#include <vector>

#include "char16.h"

namespace {

const char16_t kGuard = 0xAAAA;

// Formats into a buffer of size units followed by guard units, and checks
// that nothing past size was touched.
struct Formatted {
  std::u16string text;
  int result;
};

template <typename... Args>
Formatted Format(size_t size, const char16_t* format, Args... args) {
  std::vector<char16_t> buffer(size + 8, kGuard);
  int result = char16_swprintf(buffer.data(), size, format, args...);
  for (size_t i = size; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], kGuard) << "unit " << i;
  if (size == 0) return {u"", result};
  return {std::u16string(buffer.data()), result};
}

template <typename... Args>
std::u16string Text(const char16_t* format, Args... args) {
  return Format(256, format, args...).text;
}

}  // namespace

TEST(Char16Test, LowerMapFoldsOnlyAsciiCapitals) {
  for (unsigned u = 0; u < 65536; ++u) {
    unsigned expected = u >= 'A' && u <= 'Z' ? u + 32 : u;
    ASSERT_EQ(unsigned{__wlower_mapC[u]}, expected) << "unit " << u;
  }
}

TEST(Char16Test, ClassTableMarksTheDocumentedUnits) {
  const std::u16string kPunct = u"!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";
  for (unsigned u = 0; u < 65536; ++u) {
    uint16_t mask = __wctype_mapC[u];
    if (u >= 128) {
      ASSERT_EQ(mask, 0) << "unit " << u;
      continue;
    }
    bool bWhite = u == ' ' || (u >= 9 && u <= 13);
    bool bPunct = kPunct.find(static_cast<char16_t>(u)) != std::u16string::npos;
    bool bControl = u < 32 || u == 127;
    EXPECT_EQ((mask & kChar16Space) != 0, bWhite) << "unit " << u;
    EXPECT_EQ((mask & kChar16Punct) != 0, bPunct) << "unit " << u;
    EXPECT_EQ((mask & kChar16Control) != 0, bControl) << "unit " << u;
    bool bAlnum = (u >= '0' && u <= '9') || (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z');
    if (bAlnum) {
      EXPECT_EQ(mask & 0x184, 0) << "unit " << u;
    }
  }
}

TEST(Char16Test, FormatsTheExtensionsFixedFormats) {
  EXPECT_EQ(Text(u"<!--QZVX %d -->", 0), u"<!--QZVX 0 -->");
  EXPECT_EQ(Text(u"<!--QZVX %d -->", 12345), u"<!--QZVX 12345 -->");
  EXPECT_EQ(Text(u" qzvx=\"%d\" ", 7), u" qzvx=\"7\" ");
  EXPECT_EQ(Text(u" qzTranslatedValue=\"%ls\"", u"a%20b"), u" qzTranslatedValue=\"a%20b\"");
  const char16_t* kHilite =
      u" qzTranslatedValue=\"%ls hilitecolor=%%22Dyn%%20Up-to-Date%%20Color%%22\"";
  EXPECT_EQ(Text(kHilite, u"x"),
            u" qzTranslatedValue=\"x hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"");
  // The URL escape: two upper-case digits, zero-padded.
  EXPECT_EQ(Text(u"%%%02X", 0), u"%00");
  EXPECT_EQ(Text(u"%%%02X", 10), u"%0A");
  EXPECT_EQ(Text(u"%%%02X", 0x7F), u"%7F");
  EXPECT_EQ(Text(u"%%%02X", 0xAB), u"%AB");
}

TEST(Char16Test, IntegerConversions) {
  EXPECT_EQ(Text(u"%d", -7), u"-7");
  EXPECT_EQ(Text(u"%d", INT_MIN), u"-2147483648");
  EXPECT_EQ(Text(u"%i", INT_MAX), u"2147483647");
  EXPECT_EQ(Text(u"%u", -1), u"4294967295");
  EXPECT_EQ(Text(u"%x|%X|%#x|%#x", 255, 255, 255, 0), u"ff|FF|0xff|0");
  EXPECT_EQ(Text(u"[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 3, 3),
            u"[   42][42   ][-0042][+3][ 3]");
  // A precision is a minimum digit count and switches the 0 flag off.
  EXPECT_EQ(Text(u"[%.3d][%06.3d][%.0d]", 5, 5, 0), u"[005][   005][]");
  EXPECT_EQ(Text(u"%lld|%ld|%hd|%hhu|%zu", LLONG_MIN, -5L, 70000, 257, static_cast<size_t>(9)),
            u"-9223372036854775808|-5|4464|1|9");
}

TEST(Char16Test, TextCharacterAndPercentConversions) {
  EXPECT_EQ(Text(u"<%ls>", u""), u"<>");
  EXPECT_EQ(Text(u"<%s>", u"same as ls"), u"<same as ls>");
  EXPECT_EQ(Text(u"[%5ls][%-5ls][%.2ls]", u"ab", u"ab", u"abcdef"), u"[   ab][ab   ][ab]");
  EXPECT_EQ(Text(u"%ls", static_cast<const char16_t*>(nullptr)), u"(null)");
  // A precision bounds the read, so the text need not be terminated.
  const char16_t unterminated[3] = {u'x', u'y', u'z'};
  EXPECT_EQ(Text(u"%.3ls", unterminated), u"xyz");
  EXPECT_EQ(Text(u"%c%c", u'\u00e9', 'A'), u"\u00e9A");
  EXPECT_EQ(Text(u"100%%"), u"100%");
  // Units that start no known conversion stand for themselves; no value is
  // taken, so the %d after them still gets the first argument.
  EXPECT_EQ(Text(u"%q %f %d %", 5), u"%q %f 5 %");
}

TEST(Char16Test, FormatNeverWritesPastSize) {
  const std::u16string kFull = u"<!--QZVX 123 -->";
  for (size_t size = 0; size <= kFull.size() + 2; ++size) {
    SCOPED_TRACE(size);
    Formatted f = Format(size, u"<!--QZVX %d -->", 123);
    if (size == 0) {
      EXPECT_EQ(f.result, -1);
    } else if (size > kFull.size()) {
      EXPECT_EQ(f.text, kFull);
      EXPECT_EQ(f.result, static_cast<int>(kFull.size()));
    } else {
      EXPECT_EQ(f.text, kFull.substr(0, size - 1));
      EXPECT_EQ(f.result, -1);
    }
  }
  // Huge widths and padding are cut at the buffer, not written out.
  EXPECT_EQ(Format(4, u"%999999999999d", 1).text, u"   ");
  EXPECT_EQ(Format(4, u"%-2000000000ls|", u"a").text, u"a  ");
}

TEST(Char16Test, CutNeverSplitsASurrogatePair) {
  const char16_t kPair[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ(Format(3, u"a%ls", kPair).text, u"a");
  EXPECT_EQ(Format(4, u"a%ls", kPair).text, (std::u16string{u'a', 0xD83D, 0xDE00}));
}

TEST(Char16Test, ScansLabelNumbers) {
  int n = -99;
  EXPECT_EQ(char16_swscanf(u"<!--QZVX 12 -->", u"<!--QZVX %d", &n), 1);
  EXPECT_EQ(n, 12);
  EXPECT_EQ(char16_swscanf(u"<!--QZVX\n\t-3", u"<!--QZVX %d", &n), 1);
  EXPECT_EQ(n, -3);
  EXPECT_EQ(char16_swscanf(u"<!--QZVX99999999999", u"<!--QZVX %d", &n), 1);
  EXPECT_EQ(n, INT_MAX);
  EXPECT_EQ(char16_swscanf(u"<!--QZVX -99999999999", u"<!--QZVX %d", &n), 1);
  EXPECT_EQ(n, INT_MIN);

  n = -99;
  EXPECT_EQ(char16_swscanf(u"<!--QZVX x", u"<!--QZVX %d", &n), 0) << "no digits";
  EXPECT_EQ(char16_swscanf(u"<!--QZVX -", u"<!--QZVX %d", &n), -1) << "ends in the field";
  EXPECT_EQ(char16_swscanf(u"<!--qzvx 1", u"<!--QZVX %d", &n), 0) << "literals match exactly";
  EXPECT_EQ(char16_swscanf(u"<!--QZ", u"<!--QZVX %d", &n), -1);
  EXPECT_EQ(char16_swscanf(u"", u"<!--QZVX %d", &n), -1);
  EXPECT_EQ(n, -99) << "a failed field stores nothing";
}

TEST(Char16Test, ScansWordsAndSetsWithinBounds) {
  char16_t word[128 + 4];
  std::fill(std::begin(word), std::end(word), kGuard);
  EXPECT_EQ(char16_swscanf(u" \t taglib prefix=\"x\"", u" %120ls", word), 1);
  EXPECT_EQ(std::u16string(word), u"taglib");
  EXPECT_EQ(char16_swscanf(u"TagLib%>", u" %120ls", word), 1) << "the word runs to white space";
  EXPECT_EQ(std::u16string(word), u"TagLib%>");
  EXPECT_EQ(char16_swscanf(u"   ", u" %120ls", word), -1);

  // 130 units: 120 are taken and the guard after the NUL is untouched.
  std::fill(std::begin(word), std::end(word), kGuard);
  std::u16string kLong(130, u'w');
  EXPECT_EQ(char16_swscanf(kLong.c_str(), u" %120ls", word), 1);
  EXPECT_EQ(std::u16string(word), kLong.substr(0, 120));
  EXPECT_EQ(word[121], kGuard);

  char16_t value[128];
  EXPECT_EQ(char16_swscanf(u" = \"x\" uri=\"u\"", u" = %120l[^ %]", value, 128), 1);
  EXPECT_EQ(std::u16string(value), u"\"x\"");
  EXPECT_EQ(char16_swscanf(u"=z%>", u" = %120l[^ %]", value, 128), 1);
  EXPECT_EQ(std::u16string(value), u"z");
  EXPECT_EQ(char16_swscanf(u" = %>", u" = %120l[^ %]", value, 128), 0) << "an empty field";
  EXPECT_EQ(char16_swscanf(u"\" uri=\"u\"", u" = %120l[^ %]", value, 128), 0) << "no =";
  EXPECT_EQ(char16_swscanf(u" = ", u" = %120l[^ %]", value, 128), -1);
  EXPECT_EQ(char16_swscanf(u"abcab!", u"%l[abc]", value, 128), 1);
  EXPECT_EQ(std::u16string(value), u"abcab");

  // The buffer's size bounds the field even past the width.
  char16_t small[4 + 2];
  std::fill(std::begin(small), std::end(small), kGuard);
  EXPECT_EQ(char16_swscanf(u"=abcdefgh", u" = %120l[^ %]", small, 4), 1);
  EXPECT_EQ(std::u16string(small), u"abc");
  EXPECT_EQ(small[4], kGuard);
  EXPECT_EQ(char16_swscanf(u"=abc", u" = %120l[^ %]", small, 0), 0) << "no room at all";
}

TEST(Char16Test, LiteralIsItself) {
  const char16_t* literal = u"<!--QZVX ";
  EXPECT_EQ(char16_literal(literal), literal);
}
