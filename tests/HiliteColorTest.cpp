// Highlight colouring of pieces of label-free server output, with the tag
// arrays filled as the post pass and the label removal would leave them.
// Colouring under allocation failure and on hostile tag counts is tested
// through whole merges (MainTest).
#include <algorithm>
#include <random>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "HiliteColor.h"
#include "Main.h"
#include "Memory.h"
#include "Session.h"
#include "Translation.h"

namespace {

using Tags = std::vector<std::pair<int32_t, int32_t>>;
const std::u16string& kAttr = kHilite;

class Hilite : public LibraryTest {
 protected:
  // Makes text the label-free text with these tags recorded, or else every
  // "<x" and "</x" up to its ">" (not comments), as a scanner would.
  void Record(const std::u16string& text, Tags tags = {}) {
    text_ = text;
    IntArrayCreate(&gFromServerTagBeginArray);
    IntArrayCreate(&gFromServerTagEndArray);
    gFromServerTitleInsideStart = gFromServerTitleInsideEnd = -1;
    if (tags.empty())
      for (size_t i = text.find(u'<'); i != std::u16string::npos && text.find(u'>', i) != std::u16string::npos;
           i = text.find(u'<', i + 1))
        if (text.compare(i, 4, u"<!--") != 0) tags.push_back({i, text.find(u'>', i) + 1});
    for (auto [begin, end] : tags) {
      IntArrayAdd(&gFromServerTagBeginArray, begin);
      IntArrayAdd(&gFromServerTagEndArray, end);
    }
  }
  // Colours [start, start+length) of the text (all of it by default) into a
  // buffer that already holds "pre", which must survive; result_ gets the
  // call's result.
  std::u16string Colour(int32_t start = 0, int32_t length = -1) {
    StringBuffer buffer{};
    EXPECT_EQ(StringBufferCreate(&buffer), 1);
    StringBufferAdd(&buffer, u"pre", 3);
    result_ = AddHiliteColor(&buffer, text_.c_str(), start, length < 0 ? int32_t(text_.size()) - start : length);
    std::u16string out(buffer.pData, buffer.nSize);
    MemFree(buffer.pData);
    EXPECT_EQ(out.substr(0, 3), u"pre");
    return out.substr(3);
  }
  std::u16string ColourAll(const std::u16string& text) { Record(text); return Colour(); }
  std::u16string text_;
  int result_ = -1;
};

TEST_F(Hilite, TextRuns) {
  Record(u"ab");
  EXPECT_EQ(Colour(1, 0), u"") << "empty piece";
  EXPECT_EQ(result_, 1);
  EXPECT_EQ(ColourAll(u" \t\r\n "), u" \t\r\n ") << "white space only is appended bare";
  EXPECT_EQ(ColourAll(u" \u00a0 "), Font(u" \u00a0 ")) << "a no-break space is not white space";
  EXPECT_EQ(ColourAll(u"a<!-- c -->b"), Font(u"a<!-- c -->b")) << "a comment is text";
}

TEST_F(Hilite, ElementsAndTheirMatchingCloseTags) {
  const std::u16string hello = Font(u"Hello ") + u"<b" + kAttr + u">world</b>" + Font(u"!");
  EXPECT_EQ(hello.size(), 178u);
  EXPECT_EQ(ColourAll(u"Hello <b>world</b>!"), hello) << "the worked example";
  EXPECT_EQ(ColourAll(u"<P>x</p>"), u"<P" + kAttr + u">" + Font(u"x") + u"</p>") << "names compare exactly";
  EXPECT_EQ(ColourAll(u"<div><div>a</div></div>"), u"<div" + kAttr + u"><div>a</div></div>") << "same names nest";
  EXPECT_EQ(ColourAll(u"</i>a<b>c</b>"), u"</i>" + Font(u"a") + u"<b" + kAttr + u">c</b>") << "close tag first";
  EXPECT_EQ(ColourAll(u"<b>x<br>y</b>"), u"<b" + kAttr + u">x<br>y</b>") << "br is not a b";
  EXPECT_EQ(ColourAll(u"<td\talign=left>x</td >"), u"<td" + kAttr + u"\talign=left>x</td >") << "white space";

  Record(u"<b>x<i>y</i>zz</b>");
  EXPECT_EQ(Colour(0, 13), u"<b" + kAttr + u">" + Font(u"x") + u"<i" + kAttr + u">y</i>" + Font(u"z"))
      << "the match lies beyond the piece: the content is marked as text and tags";
  // A close tag that begins exactly at the piece's end belongs to the text
  // after the piece; the merge copies it there, so it is not matched here.
  Record(u"<b>x</b>");
  EXPECT_EQ(Colour(0, 4), u"<b" + kAttr + u">" + Font(u"x"));
  EXPECT_EQ(Colour(0, 5), u"<b" + kAttr + u">x</b>") << "one unit later it is inside";
  Record(u"<i>a</i>b<u>c</u>");
  EXPECT_EQ(Colour(8, 9), Font(u"b") + u"<u" + kAttr + u">c</u>") << "a piece in the middle finds its first tag";
}

TEST_F(Hilite, PiecesInsideTheTitleStayPlain) {
  Record(u"<title>Page <b>x</b></title>");
  gFromServerTitleInsideStart = 0, gFromServerTitleInsideEnd = 3;  // tag indexes of <title> and </title>
  EXPECT_EQ(Colour(7, 13), u"Page <b>x</b>");
  EXPECT_EQ(Colour(0, 12), u"<title" + kAttr + u">" + Font(u"Page ")) << "partly outside";
  Record(u"<title lang=\"en\">T</title>");
  gFromServerTitleInsideStart = 0, gFromServerTitleInsideEnd = 1;
  EXPECT_EQ(Colour(17, 1), u"T") << "a title open tag with attributes is a title all the same";
  gFromServerTitleInsideStart = 5;
  EXPECT_EQ(Colour(17, 1), Font(u"T")) << "a title index that names no recorded tag";
  Record(u"<title>T</title>");
  gFromServerTitleInsideStart = 0, gFromServerTitleInsideEnd = 1;
  EXPECT_EQ(Colour(7, 1), u"T") << "inside the title";
  for (int32_t* entry : {&gFromServerTagEndArray.pData[0], &gFromServerTagBeginArray.pData[1]}) {
    const int32_t saved = *entry;
    *entry = entry == &gFromServerTagEndArray.pData[0] ? -1 : 99;
    EXPECT_EQ(Colour(7, 1), Font(u"T")) << "a title reported outside the text";
    *entry = saved;
  }
  gFromServerTitleInsideEnd = 2;
  EXPECT_EQ(Colour(7, 1), Font(u"T")) << "a close index that names no recorded tag";
}

TEST_F(Hilite, TagsThatDoNotFitTheTextLeaveThePiecePlain) {
  auto plain = [&](const char* label, const std::u16string& text, const Tags& tags) {
    Record(text, tags);
    EXPECT_EQ(Colour(), text) << label;
    EXPECT_EQ(result_, 1) << label;
  };
  plain("begin not at a <", u"ab<i>c", {{1, 5}});
  plain("end past the text", u"ab<i>c", {{2, 90}});
  plain("end before begin", u"ab</i>c", {{2, 1}});
  plain("begins out of order", u"<b>x<i>y", {{4, 7}, {0, 3}});
  plain("a < as the last unit", u"a<", {{1, 2}});
  plain("name running into the next tag", u"<p<b>x", {{0, 2}, {2, 5}});
  Record(u"<p<b>x", {{0, 2}, {2, 5}});
  EXPECT_EQ(Colour(2, 4), u"<b" + kAttr + u">" + Font(u"x")) << "only pieces that reach the tag are spoilt";
  Record(u"abc");
  Colour(2, 5);
  EXPECT_EQ(result_, 0) << "a piece outside the text is refused";
}

// The routines called on their own, outside a merge's index: out-of-range
// pieces and tags are refused, failed appends are reported, and the
// conditions their callers vouch for stop the process when broken.
TEST_F(Hilite, CallsOutsideAMerge) {
  Record(u"<b>x</b>");
  ASSERT_EQ(HiliteColorBegin(u"other", 5), 1);
  EXPECT_EQ(Colour(), u"<b" + kAttr + u">x</b>") << "an index of another text is not used";
  EXPECT_EQ(FindMatchingClose(0, u"other", 5), -1) << "nor for matching";
  HiliteColorEnd();
  StringBuffer buffer{};
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  EXPECT_EQ(AddHiliteColor(&buffer, text_.c_str(), -1, 2) + AddHiliteColor(&buffer, text_.c_str(), 0, -1), 0);
  MemFree(buffer.pData);
  for (int32_t index : {-1, 2, 9}) EXPECT_EQ(FindMatchingClose(index, text_.c_str(), 8), -1) << index;
  FaultFailAt(2);
  Colour();
  EXPECT_EQ(result_, 0) << "no memory for the index";
  for (long failAt : {1, 2, 3}) {
    ASSERT_EQ(StringBufferCreate(&buffer), 1);
    buffer.nCapacity = 1;
    FaultFailAt(failAt);
    EXPECT_EQ(EmitText(&buffer, std::u16string(200, u'y').c_str(), 200) + EmitTag(&buffer, u"<b>", 3), 1)
        << "one of the appends fails: " << failAt;
    FaultFailAt(0);
    MemFree(buffer.pData);
  }
  EXPECT_EQ(EmitText(&buffer, u"x", 0), 1) << "an empty run appends nothing";
  EXPECT_DEATH(EmitTag(&buffer, u"<b", 2), "length > 0.*EmitTag.*HiliteColor\\.cpp");
  Record(u"ab<b>", {{1, 2}, {2, 5}});
  EXPECT_DEATH(FindMatchingClose(0, text_.c_str(), 5), "inPtr\\[openOffset\\] == '<'.*FindMatchingClose");
  Record(u"<b>a", {{0, 3}, {3, 4}});
  EXPECT_DEATH(FindMatchingClose(0, text_.c_str(), 5), "inPtr\\[matchOffset\\] == '<'.*FindMatchingClose");
}

// The matching walk, counting depth over the recorded tags in order: the
// reference for the index.
int32_t WalkMatch(const std::u16string& t, const Tags& tags, size_t open, int32_t limit) {
  auto endsName = [&](size_t p) { return t[p] == 0 || t[p] == u'>' || t[p] == u' ' || (t[p] >= 9 && t[p] <= 13); };
  size_t name = tags[open].first + 1, n = 0;
  while (!endsName(name + n)) ++n;
  int depth = 1;
  for (size_t j = open + 1; j < tags.size() && tags[j].first < limit; ++j) {
    bool bClose = t[tags[j].first + 1] == u'/';
    size_t p = tags[j].first + 1 + bClose;
    if (t.compare(p, n, t, name, n) != 0 || t[p + n] == 0 || !endsName(p + n)) continue;
    if ((depth += bClose ? -1 : 1) == 0) return static_cast<int32_t>(j);
  }
  return -1;
}

TEST_F(Hilite, IndexedMatchingAgreesWithTheWalk) {
  const std::u16string tokens[] = {u"<a>",  u"</a>",  u"<b>",   u"</b>", u"<ab>", u"</ab>", u"<B>", u"</B>",
                                   u"<b/>", u"<b x>", u"</b >", u"<br>", u"< >",  u"</>",   u"x",   u" "};
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::u16string text;
    for (int i = 1 + static_cast<int>(random() % 40); i > 0; --i) text += tokens[random() % std::size(tokens)];
    if (random() % 4 == 0) text += u"<b";  // a last tag cut off by the text's end
    Tags tags;
    for (size_t i = text.find(u'<'); i != std::u16string::npos; i = text.find(u'<', i + 1))
      tags.push_back({i, std::min(text.find(u'>', i), text.size() - 1) + 1});
    Record(text, tags);
    ASSERT_EQ(HiliteColorBegin(text_.c_str(), static_cast<int32_t>(text.size())), 1);
    for (const char* how : {"indexed", "walked"}) {
      if (how[0] == 'w') HiliteColorEnd();
      for (size_t i = 0; i < tags.size(); ++i) {
        if (text[tags[i].first + 1] == u'/') continue;
        for (int32_t limit : {int32_t(text.size()), tags[i].first + 1 + static_cast<int32_t>(random() % 20)})
          EXPECT_EQ(FindMatchingClose(int32_t(i), text_.c_str(), limit), WalkMatch(text, tags, i, limit))
              << how << ", text " << std::string(text.begin(), text.end()) << " tag " << i << " limit " << limit;
      }
    }
  }
}

}  // namespace
