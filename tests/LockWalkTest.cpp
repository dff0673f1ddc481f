// The lock stage: pieces of server output between two labels become locks,
// the page's own tag, or stay as they came, through whole translations.
#include <string>
#include <utility>
#include <vector>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "NativeScan.h"
#include "Session.h"
#include "Translation.h"

namespace {

using LockWalkTest = TranslationTest;

TEST_F(LockWalkTest, LockInsertion) {
  // Blank output of a server open tag: the page's tag with the
  // translated-value attribute, white space dropped; a no-break space is
  // output.
  const std::u16string label = u"<asp:Label id=\"l\" runat=\"server\"/>";
  for (const char16_t* blank : {u"", u" \r\n\t"})
    EXPECT_EQ(Translate(label, {{label, blank}}), u"<asp:Label" + kHilite + u" id=\"l\" runat=\"server\"/>");
  EXPECT_EQ(Translate(label, {{label, u"\u00a0"}}), Lock(label, Font(u"\u00a0"), false));
  // A blank close tag is copied; open and close tags with output are locked
  // without <qz:invisible>.
  const std::u16string open = u"<asp:Panel runat=\"server\">", close = u"</asp:Panel>";
  EXPECT_EQ(Translate(open + u"in" + close, {{open, u""}, {close, u""}}),
            u"<asp:Panel" + kHilite + u" runat=\"server\">in</asp:Panel>");
  EXPECT_EQ(Translate(open + u"in" + close, {{open, u"<div>"}, {close, u"</div>"}}),
            Lock(open, u"<div" + kHilite + u">", false) + u"in" + Lock(close, u"</div>", false));
  // The output of grids, lists and forms stays uncoloured.
  const std::u16string grid = u"<asp:DataGrid runat=\"server\"/>", table = u"<table><tr><td>1</td></tr></table>";
  EXPECT_EQ(Translate(grid, {{grid, table}}), Lock(grid, table, false));
  EXPECT_EQ(Translate(u"<FORM action=\"a\">x</FORM>", {{u"<FORM action=\"a\">", u"<form action=\"b\">"}}),
            Lock(u"<FORM action=\"a\">", u"<form action=\"b\">", false) + u"x</FORM>");
}

TEST_F(LockWalkTest, LockEmptyPrefixedTags) {
  const std::u16string label = u"<asp:label runat=\"server\"/>", insert = u"<QZ:Insert/>", spaced = u"<QZ:Insert />";
  const Pairs blank = {{label, u""}, {insert, u""}, {spaced, u""}};
  // The flag true, false and absent. The slash belongs to the name, so
  // "QZ:Insert/" is not one of the qz: tags that keep their tag form.
  for (int flag : {1, 0, -1}) {
    lockEmpty_ = flag;
    const bool bLock = flag == 1;
    EXPECT_EQ(Translate(label, blank), bLock ? Lock(label, u"", false) : u"<asp:label" + kHilite + label.substr(10));
    EXPECT_EQ(Translate(insert, blank), bLock ? Lock(insert, u"", false) : u"<QZ:Insert/" + kHilite + u">");
    EXPECT_EQ(Translate(spaced, blank), u"<QZ:Insert" + kHilite + u" />") << flag;
  }
}

TEST_F(LockWalkTest, NamesOfBlankServerTags) {
  // With lockEmptyPrefixedTags, only the five qz: tags keep their tag form
  // among prefixed names; names without a colon always do.
  lockEmpty_ = 1;
  for (const auto& [name, bKept] : std::vector<std::pair<std::u16string, bool>>{{u"qz:update", true},
                                                                                {u"QZ:DELETE", true},
                                                                                {u"qz:dataset", true},
                                                                                {u"qz:pagebind", true},
                                                                                {u"qz:inserts", false},
                                                                                {u"qz:data", false}}) {
    const std::u16string tag = u"<" + name + u" />";
    EXPECT_EQ(Translate(tag, Answer(u"<!--QZVX 0 --><!--QZVX 1 -->")),
              bKept ? u"<" + name + kHilite + u" />" : Lock(tag, u"", false));
  }
  lockEmpty_ = -1;
  const std::u16string list = u"<asp:DataList runat=\"server\"/>";
  EXPECT_EQ(Translate(list, {{list, u"<b>1</b>"}}), Lock(list, u"<b>1</b>", false)) << "a list stays uncoloured";
  // A page text other than the one labelled: blank output of a tag that is
  // no tag there is locked, a tag spelt with a blank after "<" keeps its form.
  const Pairs blank = Answer(u"<!--QZVX 0 --><!--QZVX 1 -->");
  EXPECT_EQ(Translate(u"<x:a>", blank, {}, u"x:a>>"), Lock(u"x:a>>", u"", false));
  EXPECT_EQ(Translate(u"<x:a/>", blank, {}, u"< x:a>"), u"< x:a" + kHilite + u">");
  EXPECT_EQ(Translate(u"<x:a/>", blank, {}, u"<     "), Lock(u"<     ", u"", false)) << "no name at all";
}

TEST_F(LockWalkTest, LockFormats) {
  // "%%" and "%ls" pass; any other conversion would read an argument that
  // is not there, so a lock fails the merge.
  for (const auto& [format, opening] : std::vector<std::pair<std::u16string, std::u16string>>{
           {u"<l c=\"%ls\" p=\"100%%\">", u"<l c=\"%3C%25a%25%3E\" p=\"100%\">"},
           {u"<l>", u"<l>"},
           // The library's formatter reads the "%s" after a "%%" as "%ls".
           {u"<l q=\"%%s%%\" c=\"%s\">", u"<l q=\"%ls%\" c=\"%3C%25a%25%3E\">"},
           {u"<l c=\"%lx\">", kFailed},
           {u"<l c=\"%s%s\">", kFailed}}) {
    lockBegin_ = format;
    const std::u16string merged = Translate(u"<%a%>", {{u"<%a%>", u"A"}});
    EXPECT_EQ(merged, opening == kFailed ? kFailed : opening + u"<qz:invisible><%a%></qz:invisible>" + Font(u"A") + kLockEnd);
  }
}

TEST_F(LockWalkTest, LostAndRepeatedLabels) {
  const std::u16string page = u"<%a%>x<%b%>y<%c%>z", two = u"<%a%>x<%b%>";
  // Labels 3 and 4 lost: the steps 2-3, 3-4 and 4-5 are locked in turn.
  EXPECT_EQ(Translate(page, Answer(u"<!--QZVX 0 -->A<!--QZVX 1 -->x<!--QZVX 2 --><!--QZVX 5 -->z")),
            Lock(u"<%a%>", Font(u"A")) + u"x" + Lock(u"<%b%>", u"") + Lock(u"y", u"", false) + Lock(u"<%c%>", u"") +
                u"z");
  // An end label whose start was lost is passed over.
  EXPECT_EQ(Translate(page, Answer(u"<!--QZVX 1 -->x<!--QZVX 2 -->B<!--QZVX 3 -->y<!--QZVX 4 -->C<!--QZVX 5 -->z")),
            u"x" + Lock(u"<%b%>", Font(u"B")) + u"y" + Lock(u"<%c%>", Font(u"C")) + u"z");
  // A repeated start label ends the piece, which locks an empty code.
  EXPECT_EQ(Translate(two, Answer(u"<!--QZVX 0 -->A<!--QZVX 1 -->x<!--QZVX 2 -->P<!--QZVX 2 -->Q<!--QZVX 3 -->")),
            Lock(u"<%a%>", Font(u"A")) + u"x<qz:lock code=\"\">" + Font(u"P") + kLockEnd + Lock(u"<%b%>", Font(u"Q")));
  EXPECT_EQ(Translate(two, Answer(u"<!--QZVX 0 --><!--QZVX 0 -->A<!--QZVX 1 -->")), Lock(u"<%a%>", Font(u"A")))
      << "a start label repeated at the same place starts one piece";
  EXPECT_EQ(Translate(u"<x:a>t</x:a>", Answer(u"<!--QZVX 0 --> <!--QZVX 3 -->")), Lock(u"<x:a>t</x:a>", u" ", false))
      << "a blank open tag whose closing label is not its own is locked";
  EXPECT_EQ(Translate(two, Answer(u"<!--QZVX 0 -->A")), kFailed) << "a start label without a closing label";
}

TEST_F(LockWalkTest, LabelledTagsAroundPieces) {
  // After a piece a labelled tag moves with the lock's growth; inside one
  // it is marked -1 and keeps the server's text; without label comments
  // the offsets keep their values.
  const std::u16string lock = Lock(u"<%= a %>", Font(u"Bob"));
  EXPECT_EQ(Translate(u"<%= a %><img src=\"q\">", Answer(u"<!--QZVX 0 -->Bob<!--QZVX 1 -->"
                                                  u"<img qzvx=\"0\"  src=\"r\">")),
            lock + u"<img src=\"q\"" + TagAttr(u"src=r ") + u">");
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{static_cast<int32_t>(lock.size() + 4)}));
  EXPECT_EQ(Translate(u"<x:a><img src=\"q\"></x:a>", Answer(u"<!--QZVX 0 --><div><img qzvx=\"0\"  src=\"s\"></div>"
                                                           u"<!--QZVX 1 --><!--QZVX 2 --></x:a><!--QZVX 3 -->")),
            Lock(u"<x:a>", u"<div" + kHilite + u"><img src=\"s\"></div>", false) + u"</x:a>");
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{-1}));
  EXPECT_EQ(Translate(u"<img src=\"a\"> hi", Answer(u"<img qzvx=\"0\"  src=\"a\"> ho")), u"<img src=\"a\"> ho");
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{4}));
}

// The locked text grows once past its first 8192 units. Whichever append
// of a piece that growth falls on (the text before the piece, a blank tag's
// form, each part of the lock opening, the hidden code, each part of the
// coloured output, the text after the last piece, the final NUL), a growth
// that fails fails the merge, with the result untouched and nothing held;
// an append whose failure went unnoticed would leave its text out of a
// merge that succeeds.
TEST_F(LockWalkTest, AFailedGrowthAtAnyAppendFailsTheMerge) {
  lockBegin_ = u"<qz:lock p=\"%%\" q=\"%%s\" code=\"%s\">";
  const std::u16string label = u"<asp:Label runat=\"server\"/>", tail = label + u"<%=x%>t";
  const Pairs server = {{label, u""}, {u"<%=x%>", u"a<b>x</b>c</i>"}};
  const std::u16string merged = u"<asp:Label" + kHilite + u" runat=\"server\"/><qz:lock p=\"%\" q=\"%ls\" code=\"" +
                                u"%3C%25=x%25%3E\"><qz:invisible><%=x%></qz:invisible>" + Font(u"a") + u"<b" +
                                kHilite + u">x</b>" + Font(u"c") + u"</i>" + kLockEnd + u"t";
  // The page, its post pass, then the merge with the n-th allocation of
  // the merge failing (0: none); growths gets the merge's reallocations.
  std::vector<long> growths;
  auto merge = [&](const std::u16string& page, long n) {
    const std::u16string output = Serve(Label(page), server);
    Call("beginPostTranslate", {});
    ScanThroughNatives(host, output);
    FaultFailAt(n);
    const std::u16string result = End(page, output);
    growths = FaultReallocations();
    FaultFailAt(0);
    return result;
  };
  for (size_t pad = 8191 - merged.size(); pad <= 8191; ++pad) {
    SCOPED_TRACE(pad);
    const std::u16string page = std::u16string(pad, u'w') + tail;
    ASSERT_EQ(merge(page, 0), page.substr(0, pad) + merged);
    ASSERT_FALSE(growths.empty());
    for (long n : std::vector<long>(growths)) EXPECT_EQ(merge(page, n), kFailed) << "growth at allocation " << n;
  }
}

}  // namespace
