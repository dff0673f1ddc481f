// Text utilities: URL encoding, formatting with script formats, the #...#
// pair search (against a direct recursive rendering of its definition, and
// on hostile input) and line-ending matching.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <tuple>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Memory.h"
#include "Utility.h"

namespace {

using UtilityTest = LibraryTest;
using Pair = std::tuple<int, int64_t, int64_t>;  // found, start, end

// EncodeURL of the first length units of text (-2: all of them), released.
std::u16string Encoded(const std::u16string& text, int32_t length = -2) {
  char16_t* encoded = EncodeURL(text.c_str(), length == -2 ? static_cast<int32_t>(text.size()) : length);
  std::u16string s = encoded ? encoded : u"<null>";
  MemFree(encoded);
  return s;
}

Pair Find(const std::u16string& text, int64_t from = 0) {
  Pair p;
  std::get<0>(p) = FindHashPair(text.c_str(), from, &std::get<1>(p), &std::get<2>(p));
  return p;
}

// The pair search as its definition states it, one recursive call per nested
// "#": the index of the "#" that closes the one at i, or -1.
int64_t RecursiveClose(const std::u16string& text, int64_t i) {
  bool bSingle = false, bDouble = false;
  int64_t nDepth = 0;
  for (++i; i < static_cast<int64_t>(text.size()); ++i) {
    char16_t u = text[i];
    if (u == '"' && !bSingle) bDouble = !bDouble;
    if (u == '\'' && !bDouble) bSingle = !bSingle;
    if ((u == '(' || u == ')') && !bSingle && !bDouble) nDepth += u == '(' ? 1 : -1;
    if (u == '#' && nDepth == 0) return i;
    if (u == '#' && (i = RecursiveClose(text, i)) < 0) return -1;
  }
  return -1;
}

Pair FindRecursive(const std::u16string& text, int64_t from = 0) {
  size_t start = text.find(u'#', from);
  if (start == std::u16string::npos) return {0, -1, -1};
  int64_t end = RecursiveClose(text, static_cast<int64_t>(start));
  return {end >= 0, start, end};
}

// "#" then depthOf(k) "(" per level k, then the closings of every level,
// innermost first: one pair over the whole text.
std::u16string NestedPairs(int nLevels, int (*depthOf)(int)) {
  std::u16string text;
  for (int k = 0; k < nLevels; ++k) text.append(1, u'#').append(depthOf(k), u'(');
  for (int k = nLevels - 1; k >= 0; --k) text.append(depthOf(k), u')').append(1, u'#');
  return text;
}

}  // namespace

TEST_F(UtilityTest, EncodeURL) {
  EXPECT_EQ(Encoded(u"\u00e9\uffff"), u"\u00e9\uffff") << "units of 128 or more are copied";
  EXPECT_EQ(Encoded(u"\r\r\n\nx"), u"%0A%0A%0Ax") << "CR, CR LF and LF";
  EXPECT_EQ(Encoded(u"a\r\nb", 2), u"a%0A") << "the LF just past the length goes with its CR";
  EXPECT_EQ(Encoded(u"abc", -5), u"") << "a length below 1: empty, not null";
  std::u16string all(128, 0);  // every unit below 128, in order; the CR stands alone
  for (char16_t u = 0; u < 128; ++u) all[u] = u;
  EXPECT_EQ(Encoded(all),
            u"%00%01%02%03%04%05%06%07%08%09%0A%0B%0C%0A%0E%0F%10%11%12%13%14%15%16%17%18%19%1A%1B%1C%1D%1E%1F"
            u"%20!%22%23$%25%26'()*+,-./0123456789:;%3C=%3E?@ABCDEFGHIJKLMNOPQRSTUVWXYZ%5B%5C%5D%5E_%60"
            u"abcdefghijklmnopqrstuvwxyz%7B%7C%7D%7E%7F");
  char16_t* empty = EncodeURL(nullptr, 3);
  EXPECT_EQ(empty[0], 0) << "no text: the empty text";
  MemFree(empty);
  FaultFailAt(1);
  EXPECT_EQ(EncodeURL(u"abc", 3), nullptr);
}

TEST_F(UtilityTest, SwprintfTakesPercentSAsText) {
  char16_t buffer[64];
  EXPECT_EQ(_swprintf(buffer, 64, u"<qz:lock open=\"%s\">%ls|%d|50%%s", u"a%20b", u"two", 3), 33);
  EXPECT_EQ(std::u16string(buffer), u"<qz:lock open=\"a%20b\">two|3|50%ls") << "also the s after a doubled %";
  FaultFailAt(1);
  _swprintf(buffer, 64, u"<%d%%>", 5);
  EXPECT_EQ(std::u16string(buffer), u"<5%>") << "a format without %s is used as it is, with no copy";
  FaultFailAt(1);
  buffer[0] = 0x7777;
  EXPECT_EQ(_swprintf(buffer, 0, u"x%sy", u"z"), -1) << "no memory for the copy, no room: nothing written";
  EXPECT_EQ(buffer[0], 0x7777);
  FaultFailAt(1);
  EXPECT_EQ(_swprintf(buffer, 64, u"x%sy", u"z"), -1) << "no memory for the copy: an empty text";
  EXPECT_EQ(buffer[0], 0);
  FaultFailAt(1);
  EXPECT_EQ(_swprintf(nullptr, 0, u"x%sy", u"z"), -1) << "and no buffer to empty";
  FaultFailAt(0);
  buffer[4] = 0x7777;
  EXPECT_EQ(_swprintf(buffer, 4, u"%s", u"abcdef"), -1);
  EXPECT_EQ(std::u16string(buffer), u"abc") << "bounded like the library's formatter";
  EXPECT_EQ(buffer[4], 0x7777);
}

TEST_F(UtilityTest, FindHashPairAgreesWithTheRecursiveDefinition) {
  auto agrees = [](const std::u16string& text) {
    for (int64_t from = 0; from <= static_cast<int64_t>(text.size()); ++from)
      if (Find(text, from) != FindRecursive(text, from))
        return testing::AssertionFailure() << std::string(text.begin(), text.end()) << " from " << from << ": "
                                           << testing::PrintToString(Find(text, from));
    return testing::AssertionSuccess();
  };
  const std::u16string kAlphabet = u"#()'\"x";
  for (long code = 0; code < 1 + 6 + 36 + 216 + 1296 + 7776 + 46656; ++code) {  // every text of up to 6 units
    std::u16string text;
    for (long c = code; c > 0; c = (c - 1) / 6) text += kAlphabet[(c - 1) % 6];
    ASSERT_TRUE(agrees(text));
  }
  // Longer random texts, rich in "#" and parentheses so that walks nest.
  const std::u16string kBiased = u"##(((()))'\"xx";
  std::mt19937 random(20240611);
  for (int n = 0; n < 20000; ++n) {
    std::u16string text(1 + random() % 60, u' ');
    for (char16_t& u : text) u = kBiased[random() % kBiased.size()];
    ASSERT_TRUE(agrees(text));
  }
}

TEST_F(UtilityTest, FindHashPairOnDeepNestingAndLongRuns) {
  const int kLevels = 1000000;
  std::u16string closed = NestedPairs(kLevels, [](int) { return 1; });
  // Depths 1, 2, 1, 2...: every level differs from the one below it.
  std::u16string varied = NestedPairs(kLevels / 2, [](int k) { return 1 + k % 2; });
  // How the text handler walks a run: again from just past each pair.
  std::u16string pairs;
  for (int k = 0; k < 250000; ++k) pairs += u"#(#x#)#'a'##";

  EXPECT_EQ(Find(closed), Pair(1, 0, static_cast<int64_t>(closed.size()) - 1)) << "and no machine stack";
  EXPECT_EQ(Find(varied), Pair(1, 0, static_cast<int64_t>(varied.size()) - 1));
  int64_t from = 0, start = 0, end = 0, nPairs = 0;
  for (; FindHashPair(pairs.c_str(), from, &start, &end); from = end + 1) ++nPairs;
  EXPECT_EQ(nPairs, 500000);

  // Shapes shallow enough to recurse agree with the definition.
  std::u16string small = NestedPairs(300, [](int k) { return 1 + k % 3; });
  EXPECT_EQ(Find(small), FindRecursive(small));
  EXPECT_EQ(Find(small.substr(0, small.size() - 1)), FindRecursive(small.substr(0, small.size() - 1)));

  // Out of memory for the stack of nested walks: the "#" counts as unclosed.
  std::u16string deep = NestedPairs(5000, [](int k) { return 1 + k % 2; });
  long failAt = 1;
  for (; failAt < 100; ++failAt) {
    FaultFailAt(failAt);
    Pair got = Find(deep);
    FaultFailAt(0);
    if (got == Pair(1, 0, static_cast<int64_t>(deep.size()) - 1)) break;
    ASSERT_EQ(got, Pair(0, 0, -1)) << "fail at " << failAt;
  }
  EXPECT_TRUE(failAt > 1 && failAt < 100) << failAt;
}

TEST_F(UtilityTest, LineEndingsFollowTheModel) {
  const char16_t* kCases[][3] = {
      {u"a\r\nb", u"x\ny\nz", u"x\r\ny\r\nz"},
      {u"a\n", u"x\r\ny\rz\n", u"x\ny\rz\n"},  // only endings of the text's first style change
      {u"a\r", u"x\ny\r\n", u"x\ry\r\r"},
      {u"a\n", u"x\ry\r\nz", u"x\ny\n\nz"},
  };
  for (const auto& [model, text, expected] : kCases) {
    const char16_t* result = StringSetLineEndingsToMatch(model, text);
    ASSERT_NE(result, text);
    EXPECT_EQ(std::u16string(result), expected);
    MemFree(const_cast<char16_t*>(result));
  }
  // Nothing to change: the text itself comes back and nothing is allocated.
  FaultFailAt(1);
  const char16_t *kText = u"x\ny", *kPlain = u"plain";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"no ending", kText), kText);
  EXPECT_EQ(StringSetLineEndingsToMatch(nullptr, kText), kText) << "no model";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\r\n", kPlain), kPlain) << "no ending in the text";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\nb\r", kText), kText) << "same style";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\r\n", kText), nullptr) << "out of memory";
}
