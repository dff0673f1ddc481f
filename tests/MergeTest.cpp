// The post pass's merge (endPostTranslate), driven through the natives: the
// page is labelled by a pre pass, a "server" rewrites the labelled page, the
// server output is scanned through the callbacks by the stand-in host's
// scanner, and the merged page is checked.
#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <tuple>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Main.h"
#include "Session.h"
#include "Memory.h"
#include "Scanner.h"
#include "Utility.h"

namespace {

using Ints = std::vector<int32_t>;
using Pairs = std::vector<std::pair<std::u16string, std::u16string>>;

Ints Items(const IntArray& a) { return Ints(a.pData, a.pData + a.nSize); }

const std::u16string kLockBegin = u"<qz:lock code=\"%s\">", kLockEnd = u"</qz:lock>";
const std::u16string kValue = u"hilitecolor=%22Dyn%20Up-to-Date%20Color%22";
// The translated-value attribute of a blank server open tag, and the
// highlight attribute of tags in coloured output: the same text here.
const std::u16string kHilite = u" qzTranslatedValue=\"" + kValue + u"\"";
const std::u16string kFailed = u"(failed)";

std::u16string Font(const std::u16string& run) {
  return u"<font hilitecolor=\"Dyn Up-to-Date Color\">" + run + u"</font>";
}
// The attribute a labelled tag gets with this record.
std::u16string TagAttr(const std::u16string& record) {
  return u" qzTranslatedValue=\"" + record + u" " + kValue + u"\"";
}
std::u16string Lock(const std::u16string& code, const std::u16string& output, bool bInvisible = true) {
  char16_t* encoded = EncodeURL(code.c_str(), static_cast<int32_t>(code.size()));
  std::u16string opening = u"<qz:lock code=\"" + std::u16string(encoded) + u"\">";
  MemFree(encoded);
  return opening + (bInvisible ? u"<qz:invisible>" + code + u"</qz:invisible>" : u"") + output + kLockEnd;
}
// A server that replaces every occurrence of each text in the labelled
// page, in order; an empty text to replace stands for the whole page.
std::u16string Serve(std::u16string s, const Pairs& server) {
  for (const auto& [from, to] : server) {
    if (from.empty()) s = to;
    for (size_t p = s.find(from); !from.empty() && p != std::u16string::npos; p = s.find(from, p + to.size()))
      s.replace(p, from.size(), to);
  }
  return s;
}
Pairs Answer(const std::u16string& output) { return {{u"", output}}; }

// Hands everything a scan finds to the library's callbacks.
struct Sink : qzhost::ScanSink {
  explicit Sink(FakeHost& h) : host(h) {}
  Value S(std::u16string_view text) { return host.Str(std::u16string(text)); }
  bool Go(const char* name, std::vector<Value> args) {
    host.Call(name, std::move(args));
    return true;
  }
  bool Directive(std::u16string_view t, int32_t at) override { return Go("directive", {S(t), host.Int(at)}); }
  bool OpenTagBegin(std::u16string_view n, int32_t at) override { return Go("openTagBegin", {S(n), host.Int(at)}); }
  bool Attribute(std::u16string_view n, std::u16string_view v) override { return Go("attribute", {S(n), S(v)}); }
  bool OpenTagEnd(int32_t end, std::u16string_view c) override { return Go("openTagEnd", {host.Int(end), S(c)}); }
  bool CloseTagBegin(std::u16string_view n, int32_t at) override { return Go("closeTagBegin", {S(n), host.Int(at)}); }
  bool CloseTagEnd(int32_t end) override { return Go("closeTagEnd", {host.Int(end)}); }
  bool Text(std::u16string_view t, int32_t at) override { return Go("text", {S(t), host.Int(at)}); }
  FakeHost& host;
};

class Merge : public LibraryTest {
 protected:
  // Whatever a test did, failures included, the next page translates.
  void TearDown() override {
    FaultFailAt(failAt_ = 0);
    lockEmpty_ = -1, lockBegin_ = kLockBegin;
    EXPECT_EQ(Translate(u"<p><%= n %></p>", {{u"<%= n %>", u"Bob"}}),
              u"<p>" + Lock(u"<%= n %>", Font(u"Bob")) + u"</p>");
    LibraryTest::TearDown();
  }
  // Calls a native. While failAt_ is set, a native that made the failing
  // allocation must report failure and leave its result alone.
  qzhost::CallResult Call(const std::string& name, std::vector<Value> args) {
    long before = FaultAttempts();
    auto r = host.Call(name, std::move(args));
    if (failAt_ > 0 && before < failAt_ && FaultAttempts() >= failAt_ &&
        (name == "initialize" || name == "endPreTranslate" || name == "endPostTranslate")) {
      EXPECT_EQ(r.ok, 0) << name;
      EXPECT_EQ(r.result, FakeHost::kUnset) << name;
      nMergeFailures_ += name == "endPostTranslate";
    }
    return r;
  }
  void Scan(const std::u16string& text) {
    Sink sink(host);
    ASSERT_TRUE(qzhost::ScanPage(text, sink));
  }
  // initialize, the pre pass over the page and endPreTranslate, stopping
  // where a translator script would: the labelled page, or kFailed.
  std::u16string Label(const std::u16string& page) {
    if (!Call("initialize", {}).ok) return kFailed;
    Value prefixes = host.StrArray({u"asp:", u"qz:", u"x:", u"form"});
    bool bBegun = Call("beginPreTranslate", {host.Str(u"<%"), host.Str(u"%>"), prefixes, host.StrArray({})}).ok;
    if (bBegun) Scan(page);
    auto r = Call("endPreTranslate", {host.Str(page)});
    return bBegun && r.ok ? host.Text(r.result) : kFailed;
  }
  // endPostTranslate: the merged page, or kFailed with the result untouched.
  std::u16string End(const std::u16string& page, const std::u16string& output) {
    std::vector<Value> args = {host.Str(page), host.Str(output), host.Str(lockBegin_), host.Str(kLockEnd),
                               host.Str(kValue)};
    if (lockEmpty_ >= 0) args.push_back(qzhost::Engine::Bool(lockEmpty_ != 0));
    auto r = Call("endPostTranslate", args);
    if (r.ok) return host.Text(r.result);
    EXPECT_EQ(r.result, FakeHost::kUnset) << "a failed merge leaves the result alone";
    return kFailed;
  }
  // A translation as a translator script runs it, stopping where the script
  // would: the pre pass over the page, the server's answer, the post pass
  // over what the host's scanner reports (the answer unless given) and the
  // merge of a page text (the page unless given) with the answer. The
  // merged page or kFailed; cleanup is left to the next initialize.
  std::u16string Translate(const std::u16string& page, const Pairs& server = {},
                           const std::optional<std::u16string>& scanned = {},
                           const std::optional<std::u16string>& origText = {}) {
    std::u16string output = Label(page);
    if (output == kFailed) return kFailed;
    output = Serve(output, server);
    Call("beginPostTranslate", {});
    Scan(scanned.value_or(output));
    return End(origText.value_or(page), output);
  }
  std::u16string lockBegin_ = kLockBegin;
  int lockEmpty_ = -1;  // -1: five arguments
  long failAt_ = 0;
  int nMergeFailures_ = 0;
};

// The road of one directive.
TEST_F(Merge, TheRoadOfOneDirective) {
  const std::u16string page = u"<p><%= name %></p>";
  EXPECT_EQ(Label(page), u"<p><!--QZVX 0 --><%= name %><!--QZVX 1 --></p>");
  const std::u16string output = u"<p><!--QZVX 0 -->Bob<!--QZVX 1 --></p>";
  ASSERT_EQ(Call("beginPostTranslate", {}).ok, 1);
  Scan(output);
  EXPECT_EQ(End(page, output),
            u"<p><qz:lock code=\"%3C%25=%20name%20%25%3E\"><qz:invisible><%= name %></qz:invisible>"
            u"<font hilitecolor=\"Dyn Up-to-Date Color\">Bob</font></qz:lock></p>");
}

TEST_F(Merge, WorkedExamplesOfColourAndAttributes) {
  std::u16string hello = Font(u"Hello ") + u"<b" + kHilite + u">world</b>" + Font(u"!");
  ASSERT_EQ(hello.size(), 178u);
  EXPECT_EQ(Translate(u"<%= greeting %>", {{u"<%= greeting %>", u"Hello <b>world</b>!"}}),
            Lock(u"<%= greeting %>", hello));
  EXPECT_EQ(Translate(u"<img src=\"<%= u %>\">", {{u"<%= u %>", u"a.gif"}}),
            u"<img src=\"<%= u %>\" qzTranslatedValue=\"src=a.gif  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">");
  // The source's "/" stands before the attribute, the server's blank, "/"
  // and ">" after it.
  EXPECT_EQ(Translate(u"<br x=\"<%=1%>\" />", {{u"<%=1%>", u"1"}}),
            u"<br x=\"<%=1%>\" / qzTranslatedValue=\"x=1  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\" />");
}

TEST_F(Merge, LockInsertion) {
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

TEST_F(Merge, LockEmptyPrefixedTags) {
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

TEST_F(Merge, LostAndRepeatedLabels) {
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
  EXPECT_EQ(Translate(two, Answer(u"<!--QZVX 0 -->A")), kFailed) << "a start label without a closing label";
}

TEST_F(Merge, LabelledTagsAroundPieces) {
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

TEST_F(Merge, TranslatedValueAttributes) {
  // A blank after the server's attributes only is replaced with them; a
  // blank after both stays after the inserted attribute.
  EXPECT_EQ(Translate(u"<p a=\"<%=x%>\">", {{u"\"<%=x%>\">", u"\"1\" >"}}),
            u"<p a=\"<%=x%>\"" + TagAttr(u"a=1 ") + u">");
  EXPECT_EQ(Translate(u"<p a=\"<%=x%>\" >", {{u"<%=x%>", u"1"}}), u"<p a=\"<%=x%>\" " + TagAttr(u"a=1 ") + u" >");
  // Two labelled tags; a value with a blank is quoted.
  EXPECT_EQ(Translate(u"<a href=\"<%=h%>\">x</a><img alt=\"<%=t%>\">", {{u"<%=h%>", u"/p?q=1"}, {u"<%=t%>", u"a b"}}),
            u"<a href=\"<%=h%>\"" + TagAttr(u"href=/p?q=1 ") + u">x</a><img alt=\"<%=t%>\"" +
                TagAttr(u"alt=%22a%20b%22 ") + u">");
}

TEST_F(Merge, InputNothingShouldStopTheProcessOn) {
  // Label comments whose numbers name no label place, typed into the page
  // or made up by the server, are the author's comments: they stay.
  std::u16string page = u"<p><!--QZVX 7 -->x<!--QZVX -1 --><%=1%></p>";
  EXPECT_EQ(Translate(page), page);
  EXPECT_EQ(Translate(u"<p><%=1%></p>", {{u"<p>", u"<p><!--QZVX 99 -->"}}), u"<p><!--QZVX 99 --><%=1%></p>");

  // A label attribute that the server moved, or whose tag never ends, fails
  // the merge; one that lost its blank ends at the tag's end; one whose
  // number names no attribute place is cut, and the tag keeps the server's
  // attributes.
  page = u"<img src=\"a\">";
  EXPECT_EQ(Translate(page, {{u" qzvx=\"0\"  src=\"a\"", u" src=\"a\" qzvx=\"0\" "}}), kFailed);
  EXPECT_EQ(Translate(page, Answer(u"<img qzvx=\"0\"<p>"), u"<img qzvx=\"0\">"), kFailed);
  EXPECT_EQ(Translate(page, {{u"  src=\"a\"", u""}}), u"<img src=\"a\"" + TagAttr(u"") + u">");
  EXPECT_EQ(Translate(u"<br a=\"b\"/>", {{u"  a=\"b\"", u""}}), u"<br a=\"b\"/" + TagAttr(u"") + u"/>");
  EXPECT_EQ(Translate(page, {{u"qzvx=\"0\"  src=\"a\"", u"qzvx=\"9\"  src=\"b\""}}), u"<img src=\"b\">");

  // A page text other than the one labelled: a name scan that reaches the
  // text's end is locked; label places past the end fail the merge.
  const Pairs bothLabels = Answer(u"<!--QZVX 0 --><!--QZVX 1 -->");
  EXPECT_EQ(Translate(u"<x:a/>", bothLabels, {}, u"<x:abc"), Lock(u"<x:abc", u"", false));
  EXPECT_EQ(Translate(u"<x:a/>", bothLabels, {}, u"<x"), kFailed);

  // A title open tag with attributes still keeps its content unmarked; a
  // close tag right after a piece stays outside the lock, once.
  EXPECT_EQ(Translate(u"<title lang=\"en\"><%= t %></title>", {{u"<%= t %>", u"Home"}}),
            u"<title lang=\"en\">" + Lock(u"<%= t %>", u"Home") + u"</title>");
  EXPECT_EQ(Translate(u"<%= open %></b>", {{u"<%= open %>", u"<b>x"}}),
            Lock(u"<%= open %>", u"<b" + kHilite + u">" + Font(u"x")) + u"</b>");
  lockBegin_ = u"<l c=\"%s\" n=\"%d\">";
  EXPECT_EQ(Translate(u"<%a%>", {{u"<%a%>", u"A"}}), kFailed) << "a lock format that asks for more than one text";
  EXPECT_EQ(Translate(u"<p><%a%></p>"), u"<p><%a%></p>") << "a page that needs no lock merges whatever the lock format";
}

TEST_F(Merge, ArgumentsAndHostOperations) {
  const std::u16string page = u"<%a%>", output = u"<!--QZVX 0 -->A<!--QZVX 1 -->";
  const std::vector<Value> args = {host.Str(page), host.Str(output), host.Str(kLockBegin), host.Str(kLockEnd),
                                   host.Str(kValue), qzhost::kFalse,  qzhost::kFalse};
  // Wrong argument counts, checked before anything is done, and hosts
  // without an operation the merge needs.
  const std::pair<size_t, int> cases[] = {{0, -1}, {4, -1}, {7, -1}, {5, kSlotStringToValue},
                                          {5, kSlotValueToString}, {6, kSlotValueToBoolean}};
  for (auto [nArgs, slot] : cases) {
    Label(page);
    Call("beginPostTranslate", {});
    Scan(output);
    if (slot >= 0) host.ClearSlot(slot);
    auto r = host.Call("endPostTranslate", std::vector<Value>(args.begin(), args.begin() + nArgs));
    EXPECT_EQ(r.ok, 0) << nArgs << " arguments, slot " << slot;
    EXPECT_EQ(r.result, FakeHost::kUnset);
    if (slot < 0) {
      EXPECT_EQ(Items(gFromServerOffsetArray), (Ints{0, 15})) << "the labels were not removed";
    }
    host.table = host.engine.Table();
    host.Install();
  }
}

// Translations whose recorded offsets, label numbers and counts are then
// disturbed as a broken or hostile host could leave them: anywhere, out of
// order, entries missing. The merge may fail, but must never read outside
// its texts (the sanitizer build checks) nor stop the process.
TEST_F(Merge, ForgedReportsNeverReadOutsideTheTexts) {
  // The first twelve make pages; all of them are inserted into outputs.
  const std::u16string pieces[] = {u"<%a%>", u"<b>", u"</b>", u"<img src=\"a\">", u"<x:a/>", u"<x:b>", u"</x:b>", u"t",
                                   u" ", u"<title>", u"</title>", u"<br x=\"1\" />", u"<i>", u"</i>", u"<", u">",
                                   u"<!--QZVX 1 -->", u"<p qzvx=\"0\" >"};
  IntArray* arrays[] = {&gOffsetArray, &gOffsetTypeArray, &gAttrOffsetArray, &gAttrLengthArray, &gFromServerOffsetArray,
                        &gFromServerLengthArray, &gLabelArray, &gAttrFromServerOffsetArray, &gAttrFromServerLengthArray,
                        &gAttrLabelArray, &gFromServerTagBeginArray, &gFromServerTagEndArray};
  std::mt19937 random(11);
  auto below = [&](size_t n) { return static_cast<int32_t>(random() % n); };
  int nMerged = 0;
  for (int round = 0; round < 1500; ++round) {
    std::u16string page;
    for (int n = 1 + below(10); n > 0; --n) page += pieces[below(12)];
    std::u16string output = Label(page);
    for (int n = below(4); n > 0; --n) {
      size_t at = below(output.size() + 1);
      below(2) ? output.insert(at, pieces[below(std::size(pieces))]) : output.erase(at, below(16));
    }
    Call("beginPostTranslate", {});
    Scan(output);
    for (int n = below(4); n > 0; --n) {
      IntArray* a = arrays[below(std::size(arrays))];
      if (a->nSize > 0 && below(4) == 0) --a->nSize;
      else if (a->nSize > 0) a->pData[below(a->nSize)] = below(std::max(page.size(), output.size()) + 8) - 3;
    }
    if (below(8) == 0) gFromServerTitleInsideStart = below(6) - 1;
    if (below(8) == 0 && gEncodedAttrs.nSize > 0) gEncodedAttrs.pData[below(gEncodedAttrs.nSize)] = u'x';
    lockEmpty_ = below(2);
    nMerged += End(page, output) != kFailed;
    Call("cleanup", {});
  }
  EXPECT_GT(nMerged, 500) << "most rounds reach the end of the merge";
}

// One whole translation per allocation, failing that one: nothing may stay
// allocated, and the next page must translate as before. The second page
// loses labels 3 and 4, so its locks are made step by step over them.
TEST_F(Merge, EveryAllocationFailureIsCleanAndTheNextPageTranslates) {
  const std::u16string page =
      u"<html><head><title><%= t %></title></head><body><img src=\"<%= u %>\" alt=\"x\"><p><%= body %></p>"
      u"<asp:Label runat=\"server\"/><asp:Panel runat=\"server\">in</asp:Panel></body></html>";
  // The body's output makes the locked text grow inside a coloured piece.
  const Pairs server = {{u"<%= t %>", u"T"}, {u"<%= u %>", u"a.gif"},
                        {u"<%= body %>", u"Hello <b>world</b>!" + std::u16string(9000, u'd')},
                        {u"<asp:Label runat=\"server\"/>", u""}, {u"<asp:Panel runat=\"server\">", u"<div>"},
                        {u"</asp:Panel>", u"</div>"}};
  const std::u16string lost = u"<%a%>x<%b%>y<%c%>z";
  const Pairs lostServer = Answer(u"<!--QZVX 0 -->A<!--QZVX 1 -->x<!--QZVX 2 --><!--QZVX 5 -->z");
  const std::u16string expected = Translate(page, server);
  for (const std::u16string& part :
       {Font(u"Hello "), u"<asp:Label" + kHilite, u"<img src=\"<%= u %>\" alt=\"x\"" + TagAttr(u"src=a.gif alt=x ")})
    EXPECT_NE(expected.find(part), std::u16string::npos);
  const std::u16string lostExpected = Translate(lost, lostServer);
  EXPECT_NE(lostExpected.find(Lock(u"y", u"", false)), std::u16string::npos);
  for (const auto& [p, s, e] : {std::tuple(&page, &server, &expected), std::tuple(&lost, &lostServer, &lostExpected)}) {
    int nMergeFailuresBefore = nMergeFailures_;
    for (long failAt = 1;; ++failAt) {
      SCOPED_TRACE("failing allocation " + std::to_string(failAt));
      ReleaseLibraryState();
      ASSERT_EQ(FaultOutstanding(), 0);
      FaultFailAt(failAt_ = failAt);
      Translate(*p, *s);
      Call("cleanup", {});
      bool bFailed = FaultAttempts() >= failAt;
      FaultFailAt(failAt_ = 0);
      ReleaseLibraryState();
      ASSERT_EQ(FaultOutstanding(), 0);
      EXPECT_EQ(Translate(*p, *s), *e);
      if (!bFailed) break;
    }
    // Label-free text, attribute text, locked text, codes, openings, tag
    // index, growth, merged page: each was failed at least once.
    EXPECT_GE(nMergeFailures_ - nMergeFailuresBefore, p == &page ? 10 : 8);
  }
}

TEST_F(Merge, HostileServerOutputStaysFast) {
  // Times the merge alone: labelling and scanning are the host's business.
  auto timed = [&](const std::u16string& page, const Pairs& server, const std::u16string& expected, const char* label) {
    std::u16string output = Serve(Label(page), server);
    Call("beginPostTranslate", {});
    Scan(output);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(End(page, output) == expected) << label;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(ms, 2000) << label;
    Call("cleanup", {});
  };
  std::u16string unclosed, marked, open, close, pieces, locks, repeated;
  for (int i = 0; i < 50000; ++i) unclosed += u"<b>x", marked += u"<b" + kHilite + u">" + Font(u"x");
  for (int i = 0; i < 20000; ++i) {
    open += u"<div>", close += u"</div>", pieces += u"<%=1%>", repeated += u"<!--QZVX 0 -->r";
    locks += Lock(u"<%=1%>", u"<i" + kHilite + u">" + Font(u"v"));
  }
  timed(u"<%=x%>", {{u"<%=x%>", unclosed}}, Lock(u"<%=x%>", marked), "50,000 tags that never close, in one piece");
  timed(u"<%=x%>", {{u"<%=x%>", open + close}}, Lock(u"<%=x%>", u"<div" + kHilite + (open + close).substr(4)),
        "20,000 nested elements of one name");
  timed(pieces, {{u"<%=1%>", u"<i>v"}}, locks, "20,000 pieces, each with a tag");
  timed(u"<%=1%>", {{u"<!--QZVX 0 -->", repeated}},
        u"<qz:lock code=\"\">" + Font(std::u16string(19999, u'r')) + kLockEnd + Lock(u"<%=1%>", Font(u"r<%=1%>")),
        "one start label repeated 20,000 times: the first piece runs to the last repeat");
}

}  // namespace
