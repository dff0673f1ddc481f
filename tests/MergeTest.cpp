// The post pass's merge (endPostTranslate), driven through the natives: the
// page is labelled by a pre pass, a "server" rewrites the labelled page, the
// server output is scanned through the callbacks, and the merged page is
// checked. Pages are scanned with the stand-in host's scanner, except where
// a test scripts the callbacks itself.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>

#include "FakeHost.h"
#include "Main.h"
#include "Memory.h"
#include "Scanner.h"

namespace {

using Ints = std::vector<int32_t>;
using Server = std::function<std::u16string(const std::u16string&)>;

Ints Items(const IntArray& a) { return Ints(a.pData, a.pData + a.nSize); }

const std::u16string kLockBegin = u"<qz:lock code=\"%s\">";
const std::u16string kLockEnd = u"</qz:lock>";
const std::u16string kValue = u"hilitecolor=%22Dyn%20Up-to-Date%20Color%22";
// The translated-value attribute of a blank server open tag, and the
// highlight attribute of tags in coloured output: the same text here.
const std::u16string kValueAttr = u" qzTranslatedValue=\"" + kValue + u"\"";
const std::u16string kHilite = kValueAttr;

std::u16string Font(const std::u16string& run) {
  return u"<font hilitecolor=\"Dyn Up-to-Date Color\">" + run + u"</font>";
}

// The attribute AddAttributes gives a labelled tag with this record.
std::u16string TagAttr(const std::u16string& record) {
  return u" qzTranslatedValue=\"" + record + u" hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";
}

// Percent-encoding of the lock code, for building expected texts.
std::u16string Enc(const std::u16string& code) {
  static const std::u16string kKept = u"!$'()*+,-./:;=?_@";
  std::u16string out;
  for (size_t i = 0; i < code.size(); ++i) {
    char16_t u = code[i];
    bool bAlnum = (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z') || (u >= u'0' && u <= u'9');
    if (u == u'\r') {
      if (i + 1 < code.size() && code[i + 1] == u'\n') ++i;
      out += u"%0A";
    } else if (u >= 128 || bAlnum || kKept.find(u) != std::u16string::npos) {
      out += u;
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned>(u));
      out += std::u16string(hex, hex + 3);
    }
  }
  return out;
}

std::u16string Lock(const std::u16string& code, const std::u16string& output, bool bInvisible = true) {
  std::u16string invisible = bInvisible ? u"<qz:invisible>" + code + u"</qz:invisible>" : u"";
  return u"<qz:lock code=\"" + Enc(code) + u"\">" + invisible + output + kLockEnd;
}

// A server that replaces every occurrence of each text, in order.
Server Replacing(std::vector<std::pair<std::u16string, std::u16string>> pairs) {
  return [pairs](const std::u16string& labelled) {
    std::u16string s = labelled;
    for (const auto& [from, to] : pairs)
      for (size_t p = s.find(from); p != std::u16string::npos; p = s.find(from, p + to.size()))
        s.replace(p, from.size(), to);
    return s;
  };
}

const Server kSameOutput = [](const std::u16string& labelled) { return labelled; };

// Hands everything a scan finds to the library's callbacks.
class CallbackSink : public qzhost::ScanSink {
 public:
  explicit CallbackSink(FakeHost& host) : host_(host) {}
  bool Directive(std::u16string_view text, int32_t offset) override {
    return Call("directive", {Str(text), host_.Int(offset)});
  }
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    return Call("openTagBegin", {Str(name), host_.Int(offset)});
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    return Call("attribute", {Str(name), Str(value)});
  }
  bool OpenTagEnd(int32_t end, std::u16string_view closing) override {
    return Call("openTagEnd", {host_.Int(end), Str(closing)});
  }
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override {
    return Call("closeTagBegin", {Str(name), host_.Int(offset)});
  }
  bool CloseTagEnd(int32_t end) override { return Call("closeTagEnd", {host_.Int(end)}); }
  bool Text(std::u16string_view text, int32_t offset) override { return Call("text", {Str(text), host_.Int(offset)}); }

 private:
  Value Str(std::u16string_view text) { return host_.Str(std::u16string(text)); }
  bool Call(const char* name, std::vector<Value> args) {
    host_.Call(name, std::move(args));
    return true;
  }
  FakeHost& host_;
};

struct Settings {
  std::vector<std::u16string> prefixes{u"asp:", u"qz:", u"x:"};
};

class Merge : public LibraryTest {
 protected:
  void Scan(const std::u16string& text) {
    CallbackSink sink(host);
    ASSERT_TRUE(qzhost::ScanPage(text, sink));
  }
  // initialize, the pre pass over page, endPreTranslate; the labelled page.
  std::u16string Label(const std::u16string& page, const Settings& settings = Settings()) {
    EXPECT_EQ(host.Call("initialize", {}).ok, 1);
    EXPECT_EQ(host.Call("beginPreTranslate",
                        {host.Str(u"<%"), host.Str(u"%>"), host.StrArray(settings.prefixes), host.StrArray({})})
                  .ok,
              1);
    Scan(page);
    auto r = host.Call("endPreTranslate", {host.Str(page)});
    EXPECT_EQ(r.ok, 1);
    return host.Text(r.result);
  }
  // The post pass over output and endPostTranslate; returns the native's
  // outcome and, on success, the merged page. A failure leaves the result
  // value untouched.
  int MergeOutput(const std::u16string& page, const std::u16string& output, std::u16string* merged,
                  int lockEmpty = -1) {
    EXPECT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
    Scan(output);
    return End(page, output, merged, lockEmpty);
  }
  int End(const std::u16string& page, const std::u16string& output, std::u16string* merged, int lockEmpty = -1,
          const std::u16string& lockBegin = kLockBegin) {
    std::vector<Value> args = {host.Str(page), host.Str(output), host.Str(lockBegin), host.Str(kLockEnd),
                               host.Str(kValue)};
    if (lockEmpty >= 0) args.push_back(qzhost::Engine::Bool(lockEmpty != 0));
    auto r = host.Call("endPostTranslate", args);
    if (r.ok)
      *merged = host.Text(r.result);
    else
      EXPECT_EQ(r.result, FakeHost::kUnset) << "a failed merge leaves the result alone";
    return r.ok;
  }
  // A whole translation; cleanup at the end.
  int Translate(const std::u16string& page, const Server& server, std::u16string* merged, int lockEmpty = -1,
                const Settings& settings = Settings()) {
    std::u16string labelled = Label(page, settings);
    int ok = MergeOutput(page, server(labelled), merged, lockEmpty);
    host.Call("cleanup", {});
    return ok;
  }
  std::u16string Translated(const std::u16string& page, const Server& server, int lockEmpty = -1) {
    std::u16string merged;
    EXPECT_NE(Translate(page, server, &merged, lockEmpty), 0) << std::string(page.begin(), page.end());
    return merged;
  }
  // A page after a failure translates as always.
  void ExpectNextPageWorks() {
    EXPECT_EQ(Translated(u"<p><%= n %></p>", Replacing({{u"<%= n %>", u"Bob"}})),
              u"<p>" + Lock(u"<%= n %>", Font(u"Bob")) + u"</p>");
  }
};

// The road of one directive, with every callback scripted.
TEST_F(Merge, TheRoadOfOneDirective) {
  auto call = [&](const char* name, std::vector<Value> args) {
    ASSERT_EQ(host.Call(name, std::move(args)).ok, 1) << name;
  };
  const std::u16string page = u"<p><%= name %></p>";
  call("initialize", {});
  call("beginPreTranslate", {host.Str(u"<%"), host.Str(u"%>"), qzhost::kNull, qzhost::kNull});
  call("openTagBegin", {host.Str(u"p"), host.Int(0)});
  call("openTagEnd", {host.Int(3), host.Str(u"")});
  call("directive", {host.Str(u"<%= name %>"), host.Int(3)});
  call("closeTagBegin", {host.Str(u"p"), host.Int(14)});
  call("closeTagEnd", {host.Int(18)});
  auto labelled = host.Call("endPreTranslate", {host.Str(page)});
  ASSERT_EQ(labelled.ok, 1);
  EXPECT_EQ(host.Text(labelled.result), u"<p><!--QZVX 0 --><%= name %><!--QZVX 1 --></p>");
  EXPECT_EQ(Items(gOffsetArray), (Ints{3, 14}));
  EXPECT_EQ(Items(gOffsetTypeArray), (Ints{5, 6}));

  const std::u16string output = u"<p><!--QZVX 0 -->Bob<!--QZVX 1 --></p>";
  call("beginPostTranslate", {});
  call("openTagBegin", {host.Str(u"p"), host.Int(0)});
  call("openTagEnd", {host.Int(3), host.Str(u"")});
  call("directive", {host.Str(u"<!--QZVX 0 -->"), host.Int(3)});
  call("text", {host.Str(u"Bob"), host.Int(17)});
  call("directive", {host.Str(u"<!--QZVX 1 -->"), host.Int(20)});
  call("closeTagBegin", {host.Str(u"p"), host.Int(34)});
  call("closeTagEnd", {host.Int(38)});
  std::u16string merged;
  ASSERT_NE(End(page, output, &merged), 0);
  EXPECT_EQ(merged,
            u"<p><qz:lock code=\"%3C%25=%20name%20%25%3E\"><qz:invisible><%= name %></qz:invisible>"
            u"<font hilitecolor=\"Dyn Up-to-Date Color\">Bob</font></qz:lock></p>");
  // The label removal moved the comments to 3 and 6 and the tags with them.
  EXPECT_EQ(Items(gFromServerOffsetArray), (Ints{3, 6}));
  EXPECT_EQ(Items(gFromServerTagBeginArray), (Ints{0, 6}));
  EXPECT_EQ(Items(gFromServerTagEndArray), (Ints{3, 10}));
  call("cleanup", {});
}

TEST_F(Merge, WorkedExamplesOfColourAndAttributes) {
  // Highlight colouring: a directive whose output holds an element.
  std::u16string hello = Font(u"Hello ") + u"<b" + kHilite + u">world</b>" + Font(u"!");
  ASSERT_EQ(hello.size(), 178u);
  EXPECT_EQ(Translated(u"<%= greeting %>", Replacing({{u"<%= greeting %>", u"Hello <b>world</b>!"}})),
            Lock(u"<%= greeting %>", hello));

  // Translated-value attribute: the source's attribute text comes back.
  EXPECT_EQ(Translated(u"<img src=\"<%= u %>\">", Replacing({{u"<%= u %>", u"a.gif"}})),
            u"<img src=\"<%= u %>\" qzTranslatedValue=\"src=a.gif  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">");

  // A tag that closes itself: the source's "/" before the attribute, the
  // server's blank, "/" and ">" after it.
  EXPECT_EQ(Translated(u"<br x=\"<%=1%>\" />", Replacing({{u"<%=1%>", u"1"}})),
            u"<br x=\"<%=1%>\" / qzTranslatedValue=\"x=1  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\" />");
}

TEST_F(Merge, LockInsertion) {
  // Blank output of a server open tag: the page's tag with the
  // translated-value attribute; white space output alike.
  const std::u16string label = u"<asp:Label id=\"l\" runat=\"server\"/>";
  const std::u16string labelForm = u"<asp:Label" + kValueAttr + u" id=\"l\" runat=\"server\"/>";
  EXPECT_EQ(Translated(label, Replacing({{label, u""}})), labelForm);
  EXPECT_EQ(Translated(label, Replacing({{label, u" \r\n\t"}})), labelForm);
  // A no-break space is output.
  EXPECT_EQ(Translated(label, Replacing({{label, u"\u00a0"}})), Lock(label, Font(u"\u00a0"), false));

  // Open and close tag of a server element: blank close tags are copied;
  // with output, both are locked without <qz:invisible>.
  const std::u16string panel = u"<asp:Panel runat=\"server\">in</asp:Panel>";
  EXPECT_EQ(Translated(panel, Replacing({{u"<asp:Panel runat=\"server\">", u""}, {u"</asp:Panel>", u""}})),
            u"<asp:Panel" + kValueAttr + u" runat=\"server\">in</asp:Panel>");
  EXPECT_EQ(Translated(panel, Replacing({{u"<asp:Panel runat=\"server\">", u"<div>"}, {u"</asp:Panel>", u"</div>"}})),
            Lock(u"<asp:Panel runat=\"server\">", u"<div" + kHilite + u">", false) + u"in" +
                Lock(u"</asp:Panel>", u"</div>", false));

  // Output of grids, lists and forms stays uncoloured.
  const std::u16string grid = u"<asp:DataGrid id=\"g\" runat=\"server\"/>";
  const std::u16string table = u"<table><tr><td>1</td></tr></table>";
  EXPECT_EQ(Translated(grid, Replacing({{grid, table}})), Lock(grid, table, false));
  Settings forms;
  forms.prefixes.push_back(u"form");
  std::u16string merged;
  ASSERT_NE(Translate(u"<FORM action=\"a\">x</FORM>", Replacing({{u"<FORM action=\"a\">", u"<form action=\"b\">"}}),
                      &merged, -1, forms),
            0);
  EXPECT_EQ(merged, Lock(u"<FORM action=\"a\">", u"<form action=\"b\">", false) + u"x</FORM>");

  // Output equal to the code is left alone.
  EXPECT_EQ(Translated(u"a<%= 1 %>b", kSameOutput), u"a<%= 1 %>b");
}

TEST_F(Merge, LockEmptyPrefixedTags) {
  const std::u16string label = u"<asp:label runat=\"server\"/>";
  const Server blank = [](const std::u16string& labelled) {
    return Replacing({{u"<asp:label runat=\"server\"/>", u""}, {u"<QZ:Insert/>", u""}, {u"<QZ:Insert />", u""}})(
        labelled);
  };
  EXPECT_EQ(Translated(label, blank, 1), Lock(label, u"", false));
  EXPECT_EQ(Translated(label, blank, 0), u"<asp:label" + kValueAttr + u" runat=\"server\"/>");
  EXPECT_EQ(Translated(label, blank), u"<asp:label" + kValueAttr + u" runat=\"server\"/>") << "five arguments";
  // The slash belongs to the name: ten units, not one of the kept qz: tags.
  EXPECT_EQ(Translated(u"<QZ:Insert/>", blank, 0), u"<QZ:Insert/" + kValueAttr + u">");
  EXPECT_EQ(Translated(u"<QZ:Insert/>", blank, 1), Lock(u"<QZ:Insert/>", u"", false));
  EXPECT_EQ(Translated(u"<QZ:Insert />", blank, 1), u"<QZ:Insert" + kValueAttr + u" />");
}

TEST_F(Merge, LostAndRepeatedLabels) {
  const std::u16string page = u"<%a%>x<%b%>y<%c%>z";
  // Labels 3 and 4 lost: the steps 2-3, 3-4 and 4-5 are locked in turn.
  std::u16string output = u"<!--QZVX 0 -->A<!--QZVX 1 -->x<!--QZVX 2 --><!--QZVX 5 -->z";
  std::u16string merged;
  Label(page);
  ASSERT_NE(MergeOutput(page, output, &merged), 0);
  EXPECT_EQ(merged, Lock(u"<%a%>", Font(u"A")) + u"x" + Lock(u"<%b%>", u"") + Lock(u"y", u"", false) +
                        Lock(u"<%c%>", u"") + u"z");

  // An end label whose start was lost is passed over.
  output = u"<!--QZVX 1 -->x<!--QZVX 2 -->B<!--QZVX 3 -->y<!--QZVX 4 -->C<!--QZVX 5 -->z";
  Label(page);
  ASSERT_NE(MergeOutput(page, output, &merged), 0);
  EXPECT_EQ(merged, u"x" + Lock(u"<%b%>", Font(u"B")) + u"y" + Lock(u"<%c%>", Font(u"C")) + u"z");

  // The start label repeated: the first piece ends at the repeat and locks
  // an empty code.
  const std::u16string two = u"<%a%>x<%b%>";
  output = u"<!--QZVX 0 -->A<!--QZVX 1 -->x<!--QZVX 2 -->P<!--QZVX 2 -->Q<!--QZVX 3 -->";
  Label(two);
  ASSERT_NE(MergeOutput(two, output, &merged), 0);
  EXPECT_EQ(merged,
            Lock(u"<%a%>", Font(u"A")) + u"x<qz:lock code=\"\">" + Font(u"P") + kLockEnd + Lock(u"<%b%>", Font(u"Q")));

  // A start label without a closing label fails the merge.
  Label(two);
  EXPECT_EQ(MergeOutput(two, u"<!--QZVX 0 -->A", &merged), 0);
  host.Call("cleanup", {});
  ExpectNextPageWorks();
}

TEST_F(Merge, LabelledTagsAroundPieces) {
  // A labelled tag after a piece moves with the lock's growth and gets its
  // source attributes.
  std::u16string merged;
  std::u16string page = u"<%= a %><img src=\"q\">";
  Label(page);
  std::u16string lock = Lock(u"<%= a %>", Font(u"Bob"));
  ASSERT_NE(MergeOutput(page, u"<!--QZVX 0 -->Bob<!--QZVX 1 --><img qzvx=\"0\"  src=\"r\">", &merged), 0);
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{static_cast<int32_t>(lock.size() + 4)}));
  EXPECT_EQ(merged, lock + u"<img src=\"q\"" + TagAttr(u"src=r ") + u">");

  // A labelled tag inside a piece is marked -1 and keeps the server's text.
  page = u"<x:a><img src=\"q\"></x:a>";
  Label(page);
  ASSERT_NE(MergeOutput(page,
                        u"<!--QZVX 0 --><div><img qzvx=\"0\"  src=\"s\"></div><!--QZVX 1 -->"
                        u"<!--QZVX 2 --></x:a><!--QZVX 3 -->",
                        &merged),
            0);
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{-1}));
  EXPECT_EQ(merged, Lock(u"<x:a>", u"<div" + kHilite + u"><img src=\"s\"></div>", false) + u"</x:a>");

  // No label comment at all: the offsets keep their values.
  page = u"<img src=\"a\"> hi";
  Label(page);
  ASSERT_NE(MergeOutput(page, u"<img qzvx=\"0\"  src=\"a\"> ho", &merged), 0);
  EXPECT_EQ(merged, u"<img src=\"a\"> ho");
  EXPECT_EQ(Items(gAttrFromServerOffsetArray), (Ints{4}));
}

TEST_F(Merge, TranslatedValueAttributes) {
  // The server dropped the only attribute: an empty record.
  EXPECT_EQ(Translated(u"<p class=\"<%=c%>\">", Replacing({{u" class=\"<%=c%>\"", u""}})),
            u"<p class=\"<%=c%>\"" + TagAttr(u"") + u">");
  // The server's attribute text is followed by a blank, the source's by
  // ">": the blank is replaced along with the attributes.
  EXPECT_EQ(Translated(u"<p a=\"<%=x%>\">", Replacing({{u"\"<%=x%>\">", u"\"1\" >"}})),
            u"<p a=\"<%=x%>\"" + TagAttr(u"a=1 ") + u">");
  // Both end in a blank before ">": the server's blank stays after the
  // inserted attribute.
  EXPECT_EQ(Translated(u"<p a=\"<%=x%>\" >", Replacing({{u"<%=x%>", u"1"}})),
            u"<p a=\"<%=x%>\" " + TagAttr(u"a=1 ") + u" >");
  // Two labelled tags, values quoted with %22 when they hold a blank.
  EXPECT_EQ(Translated(u"<a href=\"<%=h%>\">x</a><img alt=\"<%=t%>\">",
                       Replacing({{u"<%=h%>", u"/p?q=1"}, {u"<%=t%>", u"a b"}})),
            u"<a href=\"<%=h%>\"" + TagAttr(u"href=/p?q=1 ") + u">x</a><img alt=\"<%=t%>\"" +
                TagAttr(u"alt=%22a%20b%22 ") + u">");
}

TEST_F(Merge, OutputEqualToTheLabelledPageGivesThePageBack) {
  const std::u16string pages[] = {
      u"<p><%= name %></p>",
      u"<html><head><title><%= t %></title></head><body class=\"x\"><img src=\"<%= u %>\" alt=\"a b\"><br/>"
      u"<x:a id=\"1\">t</x:a><x:b/><!--#include file=\"f\"--><p align=center>z</p></body></html>",
      u"<script>var a = \"<b>\";</script><style>p{}</style><div id=\"d\">x</div>",
      u"<br x=\"<%=1%>\" /><input type=\"checkbox\" checked><%-- c --%>",
      u"<p title=\"\u00e9\">\u00fc<%=1%>\r\n</p><!-- plain comment -->",
      u"<asp:Panel runat=\"server\"><asp:Label runat=\"server\" text=\"<%# x %>\"/></asp:Panel>",
      u"",
  };
  for (const std::u16string& page : pages) EXPECT_EQ(Translated(page, kSameOutput), page);
}

TEST_F(Merge, InputNothingShouldStopTheProcessOn) {
  std::u16string merged;
  // A label comment typed into the page, with a number that names no
  // label place, is the author's comment: it stays.
  std::u16string page = u"<p><!--QZVX 7 -->x<!--QZVX -1 --><%=1%></p>";
  EXPECT_EQ(Translated(page, kSameOutput), page);
  // One made up by the server stays too.
  EXPECT_EQ(Translated(u"<p><%=1%></p>", Replacing({{u"<p>", u"<p><!--QZVX 99 -->"}})),
            u"<p><!--QZVX 99 --><%=1%></p>");

  // A label attribute that the server moved, or whose tag never ends: the
  // merge fails, the next page works.
  page = u"<img src=\"a\">";
  EXPECT_EQ(Translate(page, Replacing({{u" qzvx=\"0\"  src=\"a\"", u" src=\"a\" qzvx=\"0\" "}}), &merged), 0);
  Label(page);
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  Scan(u"<img qzvx=\"0\">");
  EXPECT_EQ(End(page, u"<img qzvx=\"0\"<p>", &merged), 0);
  host.Call("cleanup", {});
  ExpectNextPageWorks();
  // One that lost its blank ends at the tag's end.
  EXPECT_EQ(Translated(page, Replacing({{u"  src=\"a\"", u""}})), u"<img src=\"a\"" + TagAttr(u"") + u">");
  EXPECT_EQ(Translated(u"<br a=\"b\"/>", Replacing({{u"  a=\"b\"", u""}})), u"<br a=\"b\"/" + TagAttr(u"") + u"/>");
  // A label attribute with a number that names no attribute place: cut,
  // and the tag keeps the server's attributes.
  EXPECT_EQ(Translated(page, Replacing({{u"qzvx=\"0\"  src=\"a\"", u"qzvx=\"9\"  src=\"b\""}})), u"<img src=\"b\">");

  // Label comments that overlap, or reach past the text: the merge fails.
  for (int32_t second : {5, 20}) {
    Label(u"<%a%>");
    ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
    host.Call("directive", {host.Str(u"<!--QZVX 0 -->"), host.Int(0)});
    host.Call("directive", {host.Str(u"<!--QZVX 1 -->"), host.Int(second)});
    EXPECT_EQ(End(u"<%a%>", u"<!--QZVX 0 --><!--QZVX 1 -->", &merged), 0) << second;
    host.Call("cleanup", {});
  }
  ExpectNextPageWorks();

  // A page text other than the one scanned: a tag name that runs to the
  // label place is locked; places past the text's end fail the merge.
  Label(u"<x:a/>");
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  Scan(u"<!--QZVX 0 --><!--QZVX 1 -->");
  ASSERT_NE(End(u"<x:abc", u"<!--QZVX 0 --><!--QZVX 1 -->", &merged), 0);
  EXPECT_EQ(merged, Lock(u"<x:abc", u"", false));
  Label(u"<x:a/>");
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  Scan(u"<!--QZVX 0 --><!--QZVX 1 -->");
  EXPECT_EQ(End(u"<x", u"<!--QZVX 0 --><!--QZVX 1 -->", &merged), 0);
  host.Call("cleanup", {});

  // A title open tag with attributes still keeps its content unmarked.
  EXPECT_EQ(Translated(u"<title lang=\"en\"><%= t %></title>", Replacing({{u"<%= t %>", u"Home"}})),
            u"<title lang=\"en\">" + Lock(u"<%= t %>", u"Home") + u"</title>");
  // A close tag right after a piece stays outside the lock, once.
  EXPECT_EQ(Translated(u"<%= open %></b>", Replacing({{u"<%= open %>", u"<b>x"}})),
            Lock(u"<%= open %>", u"<b" + kHilite + u">" + Font(u"x")) + u"</b>");
  // A lock format that asks for anything but one text fails the merge.
  Label(u"<%a%>");
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  Scan(u"<!--QZVX 0 -->A<!--QZVX 1 -->");
  EXPECT_EQ(End(u"<%a%>", u"<!--QZVX 0 -->A<!--QZVX 1 -->", &merged, -1, u"<l c=\"%s\" n=\"%d\">"), 0);
  Label(u"<%a%>");
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  Scan(u"<!--QZVX 0 -->A<!--QZVX 1 -->");
  ASSERT_NE(End(u"<%a%>", u"<!--QZVX 0 -->A<!--QZVX 1 -->", &merged, -1, u"<l c=\"%s\" p=\"100%%\">"), 0);
  EXPECT_EQ(merged, u"<l c=\"%3C%25a%25%3E\" p=\"100%\"><qz:invisible><%a%></qz:invisible>" + Font(u"A") + kLockEnd);
  host.Call("cleanup", {});
}

TEST_F(Merge, ArgumentsAndHostOperations) {
  const std::u16string page = u"<%a%>";
  const std::u16string output = u"<!--QZVX 0 -->A<!--QZVX 1 -->";
  std::u16string merged;
  auto prepare = [&]() {
    Label(page);
    ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
    Scan(output);
  };
  prepare();
  std::vector<Value> five = {host.Str(page), host.Str(output), host.Str(kLockBegin), host.Str(kLockEnd),
                             host.Str(kValue)};
  for (size_t n : {0, 4}) {
    auto r = host.Call("endPostTranslate", std::vector<Value>(five.begin(), five.begin() + n));
    EXPECT_EQ(r.ok, 0);
    EXPECT_EQ(r.result, FakeHost::kUnset);
  }
  std::vector<Value> six = five;
  six.push_back(qzhost::kFalse);
  std::vector<Value> seven = six;
  seven.push_back(qzhost::kFalse);
  EXPECT_EQ(host.Call("endPostTranslate", seven).ok, 0);
  EXPECT_EQ(Items(gFromServerOffsetArray), (Ints{0, 15})) << "nothing done before the count is checked";

  // Each host operation the merge needs, missing in turn.
  for (int slot : {kSlotStringToValue, kSlotValueToString, kSlotValueToBoolean}) {
    prepare();
    host.ClearSlot(slot);
    auto r = host.Call("endPostTranslate", slot == kSlotValueToBoolean ? six : five);
    EXPECT_EQ(r.ok, 0) << "slot " << slot;
    EXPECT_EQ(r.result, FakeHost::kUnset);
    host.table = host.engine.Table();
    host.Install();
    host.Call("cleanup", {});
  }
  ExpectNextPageWorks();
}

// Translations whose recorded offsets, label numbers and counts are then
// disturbed as a broken or hostile host could leave them: anywhere, out of
// order, entries missing. The merge may fail, but must never read outside
// its texts (the sanitizer build checks) nor stop the process.
TEST_F(Merge, ForgedReportsNeverReadOutsideTheTexts) {
  const std::u16string pagePieces[] = {u"<%a%>",  u"<b>", u"</b>", u"<img src=\"a\">", u"<x:a/>",   u"<x:b>",
                                       u"</x:b>", u"t",   u" ",    u"<title>",         u"</title>", u"<br x=\"1\" />"};
  const std::u16string outputPieces[] = {
      u"<i>", u"</i>", u"<", u">", u"z", u" ", u"<!--QZVX 1 -->", u"<p qzvx=\"0\" >"};
  std::mt19937 random(11);
  IntArray* arrays[] = {&gOffsetArray,     &gOffsetTypeArray,           &gAttrOffsetArray,
                        &gAttrLengthArray, &gFromServerOffsetArray,     &gFromServerLengthArray,
                        &gLabelArray,      &gAttrFromServerOffsetArray, &gAttrFromServerLengthArray,
                        &gAttrLabelArray,  &gFromServerTagBeginArray,   &gFromServerTagEndArray};
  int nMerged = 0;
  for (int round = 0; round < 1500; ++round) {
    std::u16string page;
    for (int n = 1 + static_cast<int>(random() % 10); n > 0; --n) page += pagePieces[random() % std::size(pagePieces)];
    std::u16string output = Label(page);
    for (int n = static_cast<int>(random() % 4); n > 0; --n) {
      size_t at = random() % (output.size() + 1);
      if (random() % 2)
        output.insert(at, outputPieces[random() % std::size(outputPieces)]);
      else
        output.erase(at, random() % 16);
    }
    ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
    Scan(output);
    const int32_t span = static_cast<int32_t>(std::max(page.size(), output.size())) + 4;
    for (int n = static_cast<int>(random() % 4); n > 0; --n) {
      IntArray* a = arrays[random() % std::size(arrays)];
      if (a->nSize == 0) continue;
      if (random() % 4 == 0)
        --a->nSize;
      else
        a->pData[random() % a->nSize] = static_cast<int32_t>(random() % (span + 4)) - 3;
    }
    if (random() % 8 == 0) gFromServerTitleInsideStart = static_cast<int32_t>(random() % 6) - 1;
    if (random() % 8 == 0 && gEncodedAttrs.nSize > 0) gEncodedAttrs.pData[random() % gEncodedAttrs.nSize] = u'x';
    std::u16string merged;
    nMerged += End(page, output, &merged, static_cast<int>(random() % 2)) != 0;
    host.Call("cleanup", {});
  }
  EXPECT_GT(nMerged, 500) << "most rounds reach the end of the merge";
}

// One whole translation per allocation, failing that one, run as a
// translator script would (stopping where the script would stop). A native
// whose own allocation failed must report failure and leave its result
// alone; nothing may stay allocated; the next page must translate as before.
TEST_F(Merge, EveryAllocationFailureIsCleanAndTheNextPageTranslates) {
  const std::u16string page =
      u"<html><head><title><%= t %></title></head><body><img src=\"<%= u %>\" alt=\"x\"><p><%= body %></p>"
      u"<asp:Label runat=\"server\"/><asp:Panel runat=\"server\">in</asp:Panel></body></html>";
  const Server server = Replacing({{u"<%= t %>", u"T"},
                                   {u"<%= u %>", u"a.gif"},
                                   {u"<%= body %>", u"Hello <b>world</b>!"},
                                   {u"<asp:Label runat=\"server\"/>", u""},
                                   {u"<asp:Panel runat=\"server\">", u"<div>"},
                                   {u"</asp:Panel>", u"</div>"}});
  const std::u16string expected = Translated(page, server);
  EXPECT_NE(expected.find(Font(u"Hello ")), std::u16string::npos);
  EXPECT_NE(expected.find(u"<asp:Label" + kValueAttr), std::u16string::npos);
  EXPECT_NE(expected.find(u"<img src=\"<%= u %>\" alt=\"x\"" + TagAttr(u"src=a.gif alt=x ")), std::u16string::npos);
  ReleaseLibraryState();
  ASSERT_EQ(MemOutstanding(), 0);

  int nMergeFailures = 0;
  for (long failAt = 1;; ++failAt) {
    SCOPED_TRACE("failing allocation " + std::to_string(failAt));
    MemFailAt(failAt);
    auto call = [&](const char* name, std::vector<Value> args) {
      long before = MemAttempts();
      auto r = host.Call(name, std::move(args));
      bool bFailedHere = before < failAt && MemAttempts() >= failAt;
      std::string n = name;
      if (bFailedHere && (n == "initialize" || n == "endPreTranslate" || n == "endPostTranslate")) {
        EXPECT_EQ(r.ok, 0) << name;
        EXPECT_EQ(r.result, FakeHost::kUnset) << name;
        nMergeFailures += n == "endPostTranslate";
      }
      return r;
    };
    if (call("initialize", {}).ok) {
      auto begun = call("beginPreTranslate",
                        {host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"asp:", u"qz:", u"x:"}), host.StrArray({})});
      if (begun.ok) Scan(page);
      auto labelled = call("endPreTranslate", {host.Str(page)});
      if (begun.ok && labelled.ok) {
        std::u16string output = server(host.Text(labelled.result));
        call("beginPostTranslate", {});
        Scan(output);
        call("endPostTranslate",
             {host.Str(page), host.Str(output), host.Str(kLockBegin), host.Str(kLockEnd), host.Str(kValue)});
      }
    }
    call("cleanup", {});
    bool bFailed = MemAttempts() >= failAt;
    MemFailAt(0);
    ReleaseLibraryState();
    ASSERT_EQ(MemOutstanding(), 0);
    EXPECT_EQ(Translated(page, server), expected);
    ReleaseLibraryState();
    if (!bFailed) break;
  }
  // Label-free text, attribute text, locked text, codes, openings, tag
  // index, growth, merged page: each was failed at least once.
  EXPECT_GE(nMergeFailures, 10);
}

TEST_F(Merge, HostileServerOutputStaysFast) {
  using Clock = std::chrono::steady_clock;
  // Times the merge alone: labelling and scanning are the host's business.
  auto timedMerge = [&](const std::u16string& page, const Server& server, std::u16string* merged) {
    std::u16string output = server(Label(page));
    EXPECT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
    Scan(output);
    auto t0 = Clock::now();
    EXPECT_NE(End(page, output, merged), 0);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
    host.Call("cleanup", {});
    return ms;
  };
  std::u16string merged;
  // 50,000 tags that never close, in one piece.
  std::u16string unclosed;
  for (int i = 0; i < 50000; ++i) unclosed += u"<b>x";
  EXPECT_LT(timedMerge(u"<%= x %>", Replacing({{u"<%= x %>", unclosed}}), &merged), 2000) << "unclosed tags";
  EXPECT_EQ(merged.size(), Lock(u"<%= x %>", u"").size() + 50000 * (4 + kHilite.size() + Font(u"").size()));

  // 20,000 pieces, each with a tag.
  std::u16string page;
  for (int i = 0; i < 20000; ++i) page += u"<%=1%>";
  EXPECT_LT(timedMerge(page, Replacing({{u"<%=1%>", u"<i>v"}}), &merged), 2000) << "many pieces";
  EXPECT_EQ(merged.size(), 20000 * Lock(u"<%=1%>", u"<i" + kHilite + u">" + Font(u"v")).size());

  // One start label repeated 20,000 times before its end label.
  std::u16string repeated;
  for (int i = 0; i < 20000; ++i) repeated += u"<!--QZVX 0 -->r";
  EXPECT_LT(timedMerge(u"<%=1%>", Replacing({{u"<!--QZVX 0 -->", repeated}}), &merged), 2000) << "repeats";
}

}  // namespace
