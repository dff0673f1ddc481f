// Text utilities: URL encoding, formatting with script formats, the #...#
// pair search (against a direct recursive rendering of its definition, and
// on hostile input) and line-ending matching.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>

#include "FakeHost.h"
#include "Memory.h"
#include "Utility.h"

namespace {

class UtilityTest : public LibraryTest {};

std::u16string Encoded(const char16_t* text, int32_t length) {
  char16_t* encoded = EncodeURL(text, length);
  if (!encoded) return u"<null>";
  std::u16string s(encoded);
  MemFree(encoded);
  return s;
}

std::u16string Encoded(const std::u16string& text) {
  return Encoded(text.c_str(), static_cast<int32_t>(text.size()));
}

// The pair search as its definition states it: one recursive call per
// nested "#". Only for inputs shallow enough for the machine stack.
int RecursiveHashPair(const char16_t* text, int64_t from, int64_t* pStart, int64_t* pEnd) {
  *pStart = -1;
  *pEnd = -1;
  int64_t i = from;
  for (; text[i] != '#'; ++i)
    if (text[i] == 0) return 0;
  *pStart = i;
  bool bSingle = false, bDouble = false;
  int64_t depth = 0;
  for (++i;; ++i) {
    switch (text[i]) {
      case 0: return 0;
      case '"': if (!bSingle) bDouble = !bDouble; break;
      case '\'': if (!bDouble) bSingle = !bSingle; break;
      case '(': if (!bSingle && !bDouble) ++depth; break;
      case ')': if (!bSingle && !bDouble) --depth; break;
      case '#': {
        if (depth == 0) {
          *pEnd = i;
          return 1;
        }
        int64_t nestedStart, nestedEnd;
        if (!RecursiveHashPair(text, i, &nestedStart, &nestedEnd)) return 0;
        i = nestedEnd;
        break;
      }
      default: break;
    }
  }
}

struct Pair {
  int found;
  int64_t start;
  int64_t end;
  bool operator==(const Pair&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Pair& p) {
  return os << "{" << p.found << ", " << p.start << ", " << p.end << "}";
}

Pair Find(const std::u16string& text, int64_t from = 0) {
  Pair p{};
  p.found = FindHashPair(text.c_str(), from, &p.start, &p.end);
  return p;
}

Pair FindRecursive(const std::u16string& text, int64_t from = 0) {
  Pair p{};
  p.found = RecursiveHashPair(text.c_str(), from, &p.start, &p.end);
  return p;
}

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

// "#" followed by depth "(" per level, then the closings that pair every
// level, innermost first: one pair over the whole text.
std::u16string NestedPairs(int nLevels, int (*depthOf)(int)) {
  std::u16string text;
  for (int k = 0; k < nLevels; ++k) text.append(1, u'#').append(depthOf(k), u'(');
  for (int k = nLevels - 1; k >= 0; --k) text.append(depthOf(k), u')').append(1, u'#');
  return text;
}

double SecondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

TEST_F(UtilityTest, EncodeURLEscapesWhatTheTableMarks) {
  EXPECT_EQ(Encoded(u"Dyn Up-to-Date Color"), u"Dyn%20Up-to-Date%20Color");
  EXPECT_EQ(Encoded(u"a\"b"), u"a%22b");
  EXPECT_EQ(Encoded(u"x&y=z"), u"x%26y=z");
  EXPECT_EQ(Encoded(u"100%"), u"100%25");
  EXPECT_EQ(Encoded(u"\u00e9\uffff"), u"\u00e9\uffff") << "units of 128 or more are copied";
  EXPECT_EQ(Encoded(std::u16string(u"a\0b", 3)), u"a%00b");
  EXPECT_EQ(Encoded(u"abc", 2), u"ab") << "only the first length units";

  // Every unit below 128 against the documented list.
  const std::u16string kEscaped = u" \"#%&<>[\\]^`{|}~\x7f";
  for (char16_t u = 0; u < 128; ++u) {
    if (u == '\r') continue;
    std::u16string expected(1, u);
    if (u < 32 || kEscaped.find(u) != std::u16string::npos) {
      const char* hex = "0123456789ABCDEF";
      expected = {u'%', static_cast<char16_t>(hex[u >> 4]), static_cast<char16_t>(hex[u & 15])};
    }
    EXPECT_EQ(Encoded(&u, 1), expected) << "unit " << int(u);
  }
}

TEST_F(UtilityTest, EncodeURLLineBreaksAndEmptyText) {
  EXPECT_EQ(Encoded(u"\r\nx"), u"%0Ax");
  EXPECT_EQ(Encoded(u"\rx"), u"%0Ax");
  EXPECT_EQ(Encoded(u"\nx"), u"%0Ax");
  EXPECT_EQ(Encoded(u"\r\r\n\n"), u"%0A%0A%0A");
  EXPECT_EQ(Encoded(u"a\r\nb", 2), u"a%0A") << "the LF just past the length goes with its CR";
  EXPECT_EQ(Encoded(u"", 0), u"") << "empty, not null";
  EXPECT_EQ(Encoded(u"abc", -5), u"");

  MemFailAt(1);
  EXPECT_EQ(EncodeURL(u"abc", 3), nullptr);
  MemFailAt(1);
  EXPECT_EQ(EncodeURL(u"", 0), nullptr);
}

TEST_F(UtilityTest, SwprintfTakesPercentSAsText) {
  char16_t buffer[64];
  EXPECT_EQ(_swprintf(buffer, 64, u"<qz:lock open=\"%s\">", u"a%20b"), 22);
  EXPECT_EQ(std::u16string(buffer), u"<qz:lock open=\"a%20b\">");
  _swprintf(buffer, 64, u"%s|%ls|%d|%s", u"one", u"two", 3, u"four");
  EXPECT_EQ(std::u16string(buffer), u"one|two|3|four");
  _swprintf(buffer, 64, u"50%%s");
  EXPECT_EQ(std::u16string(buffer), u"50%ls") << "the pair after a doubled % is rewritten too";

  // A format without "%s" is used as it is: nothing is allocated.
  MemFailAt(1);
  _swprintf(buffer, 64, u"<%d%%>", 5);
  EXPECT_EQ(std::u16string(buffer), u"<5%>");

  // When the copy cannot be made: an empty text and -1.
  MemFailAt(1);
  EXPECT_EQ(_swprintf(buffer, 64, u"x%sy", u"z"), -1);
  EXPECT_EQ(buffer[0], 0);
  MemFailAt(0);

  // Bounded like the library's formatter.
  char16_t small[4 + 1] = {0, 0, 0, 0, 0x7777};
  EXPECT_EQ(_swprintf(small, 4, u"%s", u"abcdef"), -1);
  EXPECT_EQ(std::u16string(small), u"abc");
  EXPECT_EQ(small[4], 0x7777);
}

TEST_F(UtilityTest, FindHashPairDocumentedCases) {
  EXPECT_EQ(Find(u"a #x# b"), (Pair{1, 2, 4}));
  EXPECT_EQ(Find(u"##"), (Pair{1, 0, 1})) << "empty content";
  EXPECT_EQ(Find(u"#f(#x#)#"), (Pair{1, 0, 7})) << "a nested pair inside parentheses";
  EXPECT_EQ(Find(u"#a'('#"), (Pair{1, 0, 5})) << "a quoted ( does not count";
  EXPECT_EQ(Find(u"#a\"(#\""), (Pair{1, 0, 4})) << "a quoted # still closes";
  EXPECT_EQ(Find(u"#('#')#"), (Pair{0, 0, -1})) << "the outer # stays unpaired";
  EXPECT_EQ(Find(u"x #a(# y"), (Pair{0, 2, -1})) << "start is the outer #, not the nested one";
  EXPECT_EQ(Find(u"#b"), (Pair{0, 0, -1}));
  EXPECT_EQ(Find(u"no hash"), (Pair{0, -1, -1}));
  EXPECT_EQ(Find(u""), (Pair{0, -1, -1}));
  EXPECT_EQ(Find(u"#a# #b", 3), (Pair{0, 4, -1})) << "searching again after a pair";
  EXPECT_EQ(Find(u"#a#", 3), (Pair{0, -1, -1})) << "from the terminating NUL";
}

TEST_F(UtilityTest, FindHashPairAgreesWithTheRecursiveDefinition) {
  const std::u16string kAlphabet = u"#()'\"x";
  auto check = [](const std::u16string& text) {
    for (int64_t from = 0; from <= static_cast<int64_t>(text.size()); ++from) {
      Pair expected = FindRecursive(text, from);
      Pair got = Find(text, from);
      if (got != expected) {
        ADD_FAILURE() << "text \"" << Narrow(text) << "\" from " << from << ": " << got
                      << " instead of " << expected;
        return false;
      }
    }
    return true;
  };
  // Every text of up to 6 units over the units that matter.
  std::u16string text;
  for (int length = 0; length <= 6; ++length) {
    long nTexts = 1;
    for (int k = 0; k < length; ++k) nTexts *= 6;
    for (long code = 0; code < nTexts; ++code) {
      text.clear();
      for (long c = code, k = 0; k < length; ++k, c /= 6) text += kAlphabet[c % 6];
      if (!check(text)) return;
    }
  }
  // Longer random texts, rich in "#" and parentheses so that walks nest.
  std::mt19937 random(20240611);
  const std::u16string kBiased = u"##(((()))'\"xx";
  for (int n = 0; n < 20000; ++n) {
    text.assign(1 + random() % 60, u' ');
    for (char16_t& u : text) u = kBiased[random() % kBiased.size()];
    if (!check(text)) return;
  }
}

TEST_F(UtilityTest, FindHashPairDeepNestingNeedsNoMachineStack) {
  const int kLevels = 1000000;
  std::u16string open;
  for (int k = 0; k < kLevels; ++k) open += u"#(";
  std::u16string closed = NestedPairs(kLevels, [](int) { return 1; });
  // Depths 1, 2, 1, 2...: every level differs from the one below it.
  std::u16string varied = NestedPairs(kLevels / 2, [](int k) { return 1 + k % 2; });

  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(Find(open), (Pair{0, 0, -1})) << "a million \"#(\" never close";
  EXPECT_EQ(Find(closed), (Pair{1, 0, static_cast<int64_t>(closed.size()) - 1}));
  EXPECT_EQ(Find(varied), (Pair{1, 0, static_cast<int64_t>(varied.size()) - 1}));
  EXPECT_LT(SecondsSince(t0), 2.0);

  // The same shapes, shallow enough to recurse, agree with the definition.
  std::u16string small = NestedPairs(300, [](int k) { return 1 + k % 3; });
  EXPECT_EQ(Find(small), FindRecursive(small));
  std::u16string unclosed = small.substr(0, small.size() - 1);
  EXPECT_EQ(Find(unclosed), FindRecursive(unclosed));
}

TEST_F(UtilityTest, FindHashPairOutOfMemoryCountsAsUnclosed) {
  std::u16string varied = NestedPairs(5000, [](int k) { return 1 + k % 2; });
  Pair whole{1, 0, static_cast<int64_t>(varied.size()) - 1};
  int nFailures = 0;
  for (long failAt = 1;; ++failAt) {
    MemFailAt(failAt);
    Pair got = Find(varied);
    MemFailAt(0);
    if (got == whole) break;
    ++nFailures;
    ASSERT_EQ(got, (Pair{0, 0, -1})) << "fail at " << failAt;
    ASSERT_LT(nFailures, 100);
  }
  EXPECT_GT(nFailures, 0);
}

TEST_F(UtilityTest, RepeatedPairSearchStaysLinear) {
  // How the text handler walks a run: again from just past each pair.
  std::u16string text;
  for (int k = 0; k < 250000; ++k) text += u"#(#x#)#'a'##";
  auto t0 = std::chrono::steady_clock::now();
  int64_t from = 0, start = 0, end = 0;
  int nPairs = 0;
  while (FindHashPair(text.c_str(), from, &start, &end)) {
    ++nPairs;
    from = end + 1;
  }
  EXPECT_LT(SecondsSince(t0), 2.0);
  EXPECT_EQ(nPairs, 500000);
  EXPECT_EQ(end, -1);
}

TEST_F(UtilityTest, LineEndingsFollowTheModel) {
  struct Case {
    const char16_t* model;
    const char16_t* text;
    const char16_t* expected;
  } cases[] = {
      {u"a\r\nb", u"x\ny\nz", u"x\r\ny\r\nz"},
      {u"a\nb", u"x\r\ny", u"x\ny"},
      {u"a\rb", u"x\r\ny", u"x\ry"},
      {u"a\r\n", u"b\r", u"b\r\n"},
      {u"a\n", u"x\ry\r\nz", u"x\ny\n\nz"},  // style of the first ending only
      {u"a\r", u"x\ny\r\n", u"x\ry\r\r"},
      {u"a\n", u"x\r\ny\rz\n", u"x\ny\rz\n"},  // lone CR and LF stay
  };
  for (const Case& c : cases) {
    const char16_t* result = StringSetLineEndingsToMatch(c.model, c.text);
    ASSERT_NE(result, nullptr);
    ASSERT_NE(result, c.text);
    EXPECT_EQ(std::u16string(result), c.expected) << Narrow(c.text);
    MemFree(const_cast<char16_t*>(result));
  }

  // Nothing to change: the text itself comes back and nothing is allocated.
  MemFailAt(1);
  const char16_t* kText = u"x\ny";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"no ending", kText), kText);
  const char16_t* kPlain = u"plain";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\r\n", kPlain), kPlain) << "no ending in the text";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\nb\r", kText), kText) << "same style";
  EXPECT_EQ(StringSetLineEndingsToMatch(u"a\r\n", kText), nullptr) << "out of memory";
}
