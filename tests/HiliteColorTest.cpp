// Highlight colouring of one piece of label-free server output, with the tag
// arrays filled as the post pass and the label removal would leave them.
#include <chrono>
#include <random>

#include "FakeHost.h"
#include "HiliteColor.h"
#include "Main.h"
#include "Memory.h"

namespace {

const std::u16string kFont = u"<font hilitecolor=\"Dyn Up-to-Date Color\">";
const std::u16string kAttr = u" qzTranslatedValue=\"hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";

std::u16string Font(const std::u16string& run) { return kFont + run + u"</font>"; }

class Hilite : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    Reset();
  }
  void TearDown() override {
    HiliteColorEnd();
    LibraryTest::TearDown();
  }
  void Reset() {
    ASSERT_EQ(IntArrayCreate(&gFromServerTagBeginArray), 1);
    ASSERT_EQ(IntArrayCreate(&gFromServerTagEndArray), 1);
    gFromServerTitleInsideStart = -1;
    gFromServerTitleInsideEnd = -1;
  }
  void AddTag(int32_t begin, int32_t end) {
    IntArrayAdd(&gFromServerTagBeginArray, begin);
    IntArrayAdd(&gFromServerTagEndArray, end);
  }
  // Records every "<x" and "</x" up to its ">" as a tag, as a scanner would.
  void RecordTags(const std::u16string& text) {
    Reset();
    for (size_t i = 0; i + 1 < text.size(); ++i) {
      if (text[i] != u'<' || text.compare(i, 4, u"<!--") == 0) continue;
      size_t close = text.find(u'>', i);
      if (close == std::u16string::npos) break;
      AddTag(static_cast<int32_t>(i), static_cast<int32_t>(close + 1));
    }
  }
  // Colours text[start, start+length) into a buffer that already holds
  // "pre", which must survive whatever the call does.
  std::u16string Colour(const std::u16string& text, int32_t start, int32_t length, int* pResult = nullptr) {
    StringBuffer buffer{};
    EXPECT_EQ(StringBufferCreate(&buffer), 1);
    StringBufferAdd(&buffer, u"pre", 3);
    int result = AddHiliteColor(&buffer, text.c_str(), start, length);
    if (pResult) *pResult = result;
    std::u16string out(buffer.pData, buffer.nSize);
    MemFree(buffer.pData);
    EXPECT_EQ(out.substr(0, 3), u"pre");
    return out.substr(3);
  }
  std::u16string ColourAll(const std::u16string& text) {
    RecordTags(text);
    return Colour(text, 0, static_cast<int32_t>(text.size()));
  }
};

TEST_F(Hilite, TextRunsAndTheWorkedExample) {
  // Worked example: 178 units.
  std::u16string marked = ColourAll(u"Hello <b>world</b>!");
  EXPECT_EQ(marked, Font(u"Hello ") + u"<b" + kAttr + u">world</b>" + Font(u"!"));
  EXPECT_EQ(marked.size(), 178u);

  // Empty piece: nothing, success.
  int result = 0;
  EXPECT_EQ(Colour(u"abc", 1, 0, &result), u"");
  EXPECT_EQ(result, 1);

  // White space only is appended bare; a no-break space among it is not
  // white space.
  EXPECT_EQ(ColourAll(u" \t\r\n "), u" \t\r\n ");
  EXPECT_EQ(ColourAll(u" \u00a0 "), Font(u" \u00a0 "));

  // A comment is text, wrapped with the text around it.
  EXPECT_EQ(ColourAll(u"a<!-- c -->b"), Font(u"a<!-- c -->b"));
}

TEST_F(Hilite, ElementsAndTheirMatchingCloseTags) {
  // Names are compared exactly: </p> does not close <P>.
  EXPECT_EQ(ColourAll(u"<P>x</p>"), u"<P" + kAttr + u">" + Font(u"x") + u"</p>");
  // Same names nest: the outer div takes the whole piece.
  EXPECT_EQ(ColourAll(u"<div><div>a</div></div>"), u"<div" + kAttr + u"><div>a</div></div>");
  // A close tag first is copied as it is.
  EXPECT_EQ(ColourAll(u"</i>a<b>c</b>"), u"</i>" + Font(u"a") + u"<b" + kAttr + u">c</b>");
  // br is not a b, nor is b/ or b followed by NUL.
  EXPECT_EQ(ColourAll(u"<b>x<br>y</b>"), u"<b" + kAttr + u">x<br>y</b>");
  EXPECT_EQ(ColourAll(u"<b><b/>x</b>"), u"<b" + kAttr + u"><b/>x</b>");
  // Attributes and white space after the name.
  EXPECT_EQ(ColourAll(u"<td\talign=left>x</td >"), u"<td" + kAttr + u"\talign=left>x</td >");
  // An unclosed inner tag of the same name leaves the outer one alone.
  EXPECT_EQ(ColourAll(u"<b><b>x</b>"), u"<b" + kAttr + u"><b" + kAttr + u">x</b>");

  // The match lies beyond the piece: the open tag stands alone and its
  // content is marked as text and tags.
  std::u16string text = u"<b>x<i>y</i>zz</b>";
  RecordTags(text);
  EXPECT_EQ(Colour(text, 0, 13), u"<b" + kAttr + u">" + Font(u"x") + u"<i" + kAttr + u">y</i>" + Font(u"z"));

  // A close tag that begins exactly at the piece's end belongs to the text
  // after the piece; the merge copies it there, so it is not matched here.
  text = u"<b>x</b>";
  RecordTags(text);
  EXPECT_EQ(Colour(text, 0, 4), u"<b" + kAttr + u">" + Font(u"x"));
  EXPECT_EQ(Colour(text, 0, 5), u"<b" + kAttr + u">x</b>") << "one unit later it is inside";
  EXPECT_EQ(FindMatchingClose(0, text.c_str(), 4), -1);
  EXPECT_EQ(FindMatchingClose(0, text.c_str(), 5), 1);

  // A piece that starts in the middle of the text finds its first tag.
  text = u"<i>a</i>b<u>c</u>";
  RecordTags(text);
  EXPECT_EQ(Colour(text, 8, 9), Font(u"b") + u"<u" + kAttr + u">c</u>");
}

TEST_F(Hilite, PiecesInsideTheTitleStayPlain) {
  std::u16string text = u"<title>Page <b>x</b></title><p>y</p>";
  RecordTags(text);
  gFromServerTitleInsideStart = 0;  // end of <title>
  gFromServerTitleInsideEnd = 3;    // begin of </title>
  EXPECT_EQ(Colour(text, 7, 13), u"Page <b>x</b>");
  EXPECT_EQ(Colour(text, 12, 8), u"<b>x</b>");
  // Partly outside the title's content: marked as usual.
  EXPECT_EQ(Colour(text, 0, 12), u"<title" + kAttr + u">" + Font(u"Page "));

  // A title open tag with attributes is a title all the same.
  text = u"<title lang=\"en\">T</title>";
  RecordTags(text);
  gFromServerTitleInsideStart = 0;
  gFromServerTitleInsideEnd = 1;
  EXPECT_EQ(Colour(text, 17, 1), u"T");

  // Title indexes that name no recorded tag, or a close before the open,
  // leave the piece to the usual marking.
  gFromServerTitleInsideStart = 5;
  EXPECT_EQ(Colour(text, 17, 1), Font(u"T"));
  gFromServerTitleInsideStart = 1;
  gFromServerTitleInsideEnd = 0;
  EXPECT_EQ(Colour(text, 17, 1), Font(u"T"));
}

TEST_F(Hilite, TagsThatDoNotFitTheTextLeaveThePiecePlain) {
  struct Case {
    const char* label;
    std::u16string text;
    std::vector<std::pair<int32_t, int32_t>> tags;
  };
  const Case cases[] = {
      {"begin not at a <", u"ab<i>c", {{1, 5}}},
      {"end past the text", u"ab<i>c", {{2, 90}}},
      {"end before begin", u"ab</i>c", {{2, 1}}},
      {"begins out of order", u"<b>x<i>y", {{4, 7}, {0, 3}}},
      {"truncated last tag", u"a<p", {{1, 3}}},
      {"a < as the last unit", u"a<", {{1, 2}}},
      {"name running into the next tag", u"<p<b>x", {{0, 2}, {2, 5}}},
      {"end inside the name", u"<abc>d", {{0, 2}}},
  };
  for (const Case& c : cases) {
    Reset();
    for (auto [b, e] : c.tags) AddTag(b, e);
    int result = 0;
    EXPECT_EQ(Colour(c.text, 0, static_cast<int32_t>(c.text.size()), &result), c.text) << c.label;
    EXPECT_EQ(result, 1) << c.label;
  }

  // Tags that begin outside the text are never reached by a piece; nor is
  // a tag without its end entry.
  Reset();
  AddTag(-3, 5);
  EXPECT_EQ(Colour(u"ab<i>c", 0, 6), Font(u"ab<i>c"));
  Reset();
  AddTag(2, 5);
  AddTag(40, 44);
  EXPECT_EQ(Colour(u"ab<i>c", 0, 6), Font(u"ab") + u"<i" + kAttr + u">" + Font(u"c"));
  Reset();
  IntArrayAdd(&gFromServerTagBeginArray, 1);
  EXPECT_EQ(Colour(u"x<b", 0, 3), Font(u"x<b"));

  // A tag that does not fit spoils only the pieces that reach it.
  std::u16string text = u"<p<b>x";
  Reset();
  AddTag(0, 2);
  AddTag(2, 5);
  EXPECT_EQ(Colour(text, 2, 4), u"<b" + kAttr + u">" + Font(u"x"));

  // A piece outside the text is refused.
  int result = 1;
  Colour(u"abc", 2, 5, &result);
  EXPECT_EQ(result, 0);
}

// The depth-counting walk, written out as the reference for the index.
int32_t ReferenceMatch(const std::u16string& text, const std::vector<int32_t>& begins, size_t openIndex,
                       int32_t limit) {
  auto endsName = [](char16_t u) { return u == 0 || u == u'>' || u == u' ' || (u >= 9 && u <= 13); };
  const char16_t* t = text.c_str();
  size_t nameStart = begins[openIndex] + 1, n = 0;
  while (!endsName(t[nameStart + n])) ++n;
  int depth = 1;
  for (size_t j = openIndex + 1; j < begins.size(); ++j) {
    if (begins[j] >= limit) return -1;
    size_t p = begins[j] + 1;
    bool bClose = t[p] == u'/';
    if (bClose) ++p;
    if (text.compare(p, n, t + nameStart, n) != 0 || t[p + n] == 0 || !endsName(t[p + n])) continue;
    depth += bClose ? -1 : 1;
    if (depth == 0) return static_cast<int32_t>(j);
  }
  return -1;
}

TEST_F(Hilite, IndexedMatchingAgreesWithTheWalk) {
  const std::u16string tokens[] = {u"<a>",  u"</a>",  u"<b>",   u"</b>", u"<ab>", u"</ab>", u"<B>", u"</B>",
                                   u"<b/>", u"<b x>", u"</b >", u"<br>", u"< >",  u"</>",   u"x",   u" "};
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::u16string text;
    int nTokens = 1 + static_cast<int>(random() % 40);
    for (int i = 0; i < nTokens; ++i) text += tokens[random() % std::size(tokens)];
    if (random() % 4 == 0) text += u"<b";  // a last tag cut off by the text's end
    Reset();
    std::vector<int32_t> begins;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] != u'<') continue;
      size_t close = text.find(u'>', i);
      AddTag(static_cast<int32_t>(i), static_cast<int32_t>(close == std::u16string::npos ? text.size() : close + 1));
      begins.push_back(static_cast<int32_t>(i));
    }
    ASSERT_EQ(HiliteColorBegin(text.c_str(), static_cast<int32_t>(text.size())), 1);
    for (size_t i = 0; i < begins.size(); ++i) {
      if (text[begins[i] + 1] == u'/') continue;
      for (int32_t limit : {static_cast<int32_t>(text.size()), begins[i] + 1 + static_cast<int32_t>(random() % 20)}) {
        int32_t expected = ReferenceMatch(text, begins, i, limit);
        EXPECT_EQ(FindMatchingClose(static_cast<int32_t>(i), text.c_str(), limit), expected)
            << "indexed, text " << std::string(text.begin(), text.end()) << " tag " << i << " limit " << limit;
      }
    }
    HiliteColorEnd();
    for (size_t i = 0; i < begins.size(); ++i) {
      if (text[begins[i] + 1] == u'/') continue;
      int32_t limit = static_cast<int32_t>(text.size());
      EXPECT_EQ(FindMatchingClose(static_cast<int32_t>(i), text.c_str(), limit), ReferenceMatch(text, begins, i, limit))
          << "walked";
    }
  }
}

TEST_F(Hilite, HostileTagCountsStayFast) {
  using Clock = std::chrono::steady_clock;
  // 50,000 open tags, none closed, in one piece.
  std::u16string text;
  for (int i = 0; i < 50000; ++i) text += u"<b>x";
  RecordTags(text);
  auto t0 = Clock::now();
  std::u16string marked = Colour(text, 0, static_cast<int32_t>(text.size()));
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
  EXPECT_EQ(marked.size(), text.size() + 50000 * (kAttr.size() + kFont.size() + 7));
  EXPECT_LT(ms, 3000) << "unclosed tags";

  // 20,000 nested elements of one name: one element in all.
  text.clear();
  for (int i = 0; i < 20000; ++i) text += u"<div>";
  for (int i = 0; i < 20000; ++i) text += u"</div>";
  RecordTags(text);
  t0 = Clock::now();
  EXPECT_EQ(Colour(text, 0, static_cast<int32_t>(text.size())), u"<div" + kAttr + text.substr(4));
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(), 3000) << "nesting";
}

TEST_F(Hilite, AllocationFailuresReleaseEverything) {
  std::u16string text = u"a<b>c</b>" + std::u16string(9000, u'd');
  RecordTags(text);
  const long nHeld = MemOutstanding();
  // Without an index of the merge the call makes its own, then grows the
  // buffer past its first 8192 units.
  for (long failAt = 1;; ++failAt) {
    StringBuffer buffer{};
    ASSERT_EQ(StringBufferCreate(&buffer), 1);
    MemFailAt(failAt);
    int result = AddHiliteColor(&buffer, text.c_str(), 0, static_cast<int32_t>(text.size()));
    bool bFailed = MemAttempts() >= failAt;
    MemFailAt(0);
    MemFree(buffer.pData);
    EXPECT_EQ(MemOutstanding(), nHeld) << "failing allocation " << failAt;
    if (!bFailed) {
      EXPECT_EQ(result, 1);
      break;
    }
    EXPECT_EQ(result, 0) << "failing allocation " << failAt;
  }
  MemFailAt(1);
  EXPECT_EQ(HiliteColorBegin(text.c_str(), static_cast<int32_t>(text.size())), 0);
  MemFailAt(0);
  EXPECT_EQ(MemOutstanding(), nHeld);
}

TEST_F(Hilite, EmitTagStopsWhenTheNameFillsTheLength) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  StringBuffer buffer{};
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  EXPECT_EQ(EmitTag(&buffer, u"<abc>", 5), 1);
  EXPECT_EQ(std::u16string(buffer.pData, buffer.nSize), u"<abc" + kAttr + u">");
  EXPECT_DEATH(EmitTag(&buffer, u"<abc>", 4), "length > 0");
  MemFree(buffer.pData);
}

}  // namespace
