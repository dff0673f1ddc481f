// The translated-value attribute stage: labelled tags whose attributes the
// server changed get the page's attributes back and the server's in a
// translated-value attribute, through whole translations.
#include "FakeHost.h"
#include "Translation.h"

namespace {

using AttrMergeTest = TranslationTest;

TEST_F(AttrMergeTest, WorkedExamples) {
  EXPECT_EQ(Translate(u"<img src=\"<%= u %>\">", {{u"<%= u %>", u"a.gif"}}),
            u"<img src=\"<%= u %>\" qzTranslatedValue=\"src=a.gif  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">");
  // The source's "/" stands before the attribute, the server's blank, "/"
  // and ">" after it.
  EXPECT_EQ(Translate(u"<br x=\"<%=1%>\" />", {{u"<%=1%>", u"1"}}),
            u"<br x=\"<%=1%>\" / qzTranslatedValue=\"x=1  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\" />");
}

TEST_F(AttrMergeTest, TranslatedValueAttributes) {
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

// Where the page's attribute text and the server's end differently, the
// page's replaces the server's up to the unit that follows the page's, and
// white space both end in stays after the inserted attribute.
TEST_F(AttrMergeTest, AlignmentOfTheTwoAttributeTexts) {
  const std::u16string page = u"<br x=\"<%=1%>\"", attr = TagAttr(u"x=1 ");
  const std::pair<std::u16string, std::u16string> cases[] = {
      {u"  />", u"  /" + attr + u"  />"},  // both end in the same blanks, which stay after the attribute
      {u" \t/>", u" \t/" + attr + u" \t/>"},
      {u"/>", u"/" + attr + u"/>"},
      {u" >", u" " + attr + u" >"},
  };
  for (const auto& [end, merged] : cases)
    EXPECT_EQ(Translate(page + end, {{u"<%=1%>", u"1"}}), page + merged) << std::string(end.begin(), end.end());
  // A page's text followed by something other than ">".
  EXPECT_EQ(Translate(u"<p a=\"<%=x%>\"/>", {{u"<%=x%>", u"1"}}), u"<p a=\"<%=x%>\"/" + TagAttr(u"a=1 ") + u"/>");
  // A "/" the server spaced away from its ">" is no "/>": the white space
  // before it is not taken in.
  for (const std::u16string end : {u" />", u"/>"}) {
    const std::u16string pageText = page + end.substr(0, end.size() - 1);
    EXPECT_EQ(Translate(page + end, Answer(u"<br qzvx=\"0\"  x=\"1\" / >")), pageText + attr + u" / >");
  }
}

}  // namespace
