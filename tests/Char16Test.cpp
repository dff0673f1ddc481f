// The stand-in UTF-16 library: its tables, the conversions the extension
// formats and scans with, and the buffer bounds of both.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "char16.h"

namespace {

const char16_t kGuard = 0xAAAA;
int gResult;  // the result of the last Format

// Formats into size units followed by guard units, and fails the test if
// anything past size was touched.
template <typename... Args>
std::u16string Format(size_t size, const char16_t* format, Args... args) {
  std::vector<char16_t> buffer(size + 8, kGuard);
  gResult = char16_swprintf(buffer.data(), size, format, args...);
  for (size_t i = size; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], kGuard) << "unit " << i;
  return size == 0 ? u"" : buffer.data();
}

template <typename... Args>
std::u16string Text(const char16_t* format, Args... args) { return Format(256, format, args...); }

using Field = std::pair<int, std::u16string>;  // fields stored, and the text scanned

}  // namespace

TEST(Char16Test, TablesFoldAndClassifyAsciiOnly) {
  const std::u16string kPunct = u"!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";
  for (unsigned u = 0; u < 65536; ++u) {
    ASSERT_EQ(unsigned{__wlower_mapC[u]}, u >= 'A' && u <= 'Z' ? u + 32 : u) << "unit " << u;
    bool bPunct = u < 128 && kPunct.find(static_cast<char16_t>(u)) != std::u16string::npos;
    int expected = (u == ' ' || (u >= 9 && u <= 13) ? kChar16Space : 0) | (bPunct ? kChar16Punct : 0) |
                   (u < 32 || u == 127 ? kChar16Control : 0);
    const int kTested = kChar16Control | kChar16Punct | kChar16Space;
    ASSERT_EQ(u < 128 ? __wctype_mapC[u] & kTested : __wctype_mapC[u], expected) << "unit " << u;
  }
}

TEST(Char16Test, FixedFormatsAndConversions) {
  const char16_t* kLabel = u"<!--QZVX %d -->";
  EXPECT_EQ(char16_literal(kLabel), kLabel) << "the literal itself";
  EXPECT_EQ(Text(kLabel, 12345), u"<!--QZVX 12345 -->");
  EXPECT_EQ(Text(u" qzTranslatedValue=\"%ls hilitecolor=%%22Dyn%%20Up-to-Date%%20Color%%22\"", u"a%20b"),
            u" qzTranslatedValue=\"a%20b hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"");
  EXPECT_EQ(Text(u"%%%02X|%%%02X|%%%02X", 0, 10, 0xAB), u"%00|%0A|%AB") << "the URL escape";
  EXPECT_EQ(Text(u"%d|%i|%u|%x|%X|%#x|%#x", INT_MIN, INT_MAX, -1, 255, 255, 255, 0),
            u"-2147483648|2147483647|4294967295|ff|FF|0xff|0");
  EXPECT_EQ(Text(u"[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 3, 3), u"[   42][42   ][-0042][+3][ 3]");
  EXPECT_EQ(Text(u"[%.3d][%06.3d][%.0d]", 5, 5, 0), u"[005][   005][]") << "a precision turns 0 off";
  EXPECT_EQ(Text(u"%lld|%ld|%hd|%hhu|%zu", LLONG_MIN, -5L, 70000, 257, size_t{9}),
            u"-9223372036854775808|-5|4464|1|9");
  EXPECT_EQ(Text(u"<%ls|%s|%5ls|%-5ls|%.2ls>", u"", u"s", u"ab", u"ab", u"abc"), u"<|s|   ab|ab   |ab>");
  const char16_t kUnterminated[3] = {u'x', u'y', u'z'};
  EXPECT_EQ(Text(u"%.3ls|%ls", kUnterminated, static_cast<const char16_t*>(nullptr)), u"xyz|(null)")
      << "a precision bounds the read";
  EXPECT_EQ(Text(u"%c%c 100%% %q %f %d %", u'\u00e9', 'A', 5), u"\u00e9A 100% %q %f 5 %")
      << "unknown conversions stand for themselves and take no value";
}

TEST(Char16Test, FormatCutsAtSizeNeverPastItNorInsideAPair) {
  const std::u16string kFull = u"<!--QZVX 123 -->";
  for (size_t size = 0; size <= kFull.size() + 1; ++size) {
    bool bFits = size > kFull.size();
    EXPECT_EQ(Format(size, u"<!--QZVX %d -->", 123), bFits ? kFull : kFull.substr(0, size ? size - 1 : 0)) << size;
    EXPECT_EQ(gResult, bFits ? static_cast<int>(kFull.size()) : -1) << size;
  }
  EXPECT_EQ(Format(4, u"%-2000000000ls%999999999999d", u"a", 1), u"a  ") << "huge widths are cut, not written out";
  const char16_t kPair[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ(Format(3, u"a%ls", kPair), u"a") << "no half pair";
  EXPECT_EQ(Format(4, u"a%ls", kPair), (std::u16string{u'a', 0xD83D, 0xDE00}));
}

TEST(Char16Test, ScansLabelNumbersWordsAndSets) {
  int n[4] = {0, 0, 0, -99};
  EXPECT_EQ(char16_swscanf(u"<!--QZVX12\n\t-3 99999999999 -99999999999", u"<!--QZVX %d %d %d %d", n, n + 1, n + 2,
                           n + 3), 4);
  EXPECT_EQ(std::vector<int>(n, n + 4), (std::vector<int>{12, -3, INT_MAX, INT_MIN})) << "held in range";
  n[0] = -99;
  EXPECT_EQ(char16_swscanf(u"<!--QZVX x", u"<!--QZVX %d", n), 0) << "no digits";
  EXPECT_EQ(char16_swscanf(u"<!--QZVX -", u"<!--QZVX %d", n), -1) << "ends in the field";
  EXPECT_EQ(char16_swscanf(u"<!--qzvx 1", u"<!--QZVX %d", n), 0) << "literals match exactly";
  EXPECT_EQ(char16_swscanf(u"<!--QZ", u"<!--QZVX %d", n), -1);
  EXPECT_EQ(n[0], -99) << "a failed field stores nothing";

  // Words and sets; the buffer's size goes after it, and " %120ls" ignores it.
  char16_t field[132];
  auto scan = [&](const std::u16string& text, const char16_t* format, int size = 128) {
    std::fill(std::begin(field), std::end(field), kGuard);
    int nFields = char16_swscanf(text.c_str(), format, field, size);
    return Field(nFields, nFields == 1 ? field : u"");
  };
  EXPECT_EQ(scan(std::u16string(130, u'w'), u" %120ls"), Field(1, std::u16string(120, u'w')));
  EXPECT_EQ(field[121], kGuard) << "120 units at most, nothing past the NUL";
  EXPECT_EQ(scan(u" \t TagLib%> x", u" %120ls"), Field(1, u"TagLib%>")) << "the word runs to white space";
  EXPECT_EQ(scan(u"   ", u" %120ls"), Field(-1, u""));
  EXPECT_EQ(scan(u" = \"x\" uri=\"u\"", u" = %120l[^ %]"), Field(1, u"\"x\""));
  EXPECT_EQ(scan(u"=z%>", u" = %120l[^ %]"), Field(1, u"z"));
  EXPECT_EQ(scan(u" = %>", u" = %120l[^ %]"), Field(0, u"")) << "an empty field";
  EXPECT_EQ(scan(u"\" uri=\"u\"", u" = %120l[^ %]"), Field(0, u"")) << "no =";
  EXPECT_EQ(scan(u"=abcdefgh", u" = %120l[^ %]", 4), Field(1, u"abc")) << "the buffer's size bounds the field";
  EXPECT_EQ(field[4], kGuard);
  EXPECT_EQ(scan(u"=abc", u" = %120l[^ %]", 0), Field(0, u"")) << "no room at all";
  EXPECT_EQ(scan(u"abcab!", u"%l[abc]"), Field(1, u"abcab"));
}
