// Why a refused merge was refused, told from the labels of the labelled page
// and of the server's output and, when the page is at fault, from the page.
#include "MergeDiagnosis.h"

#include <gtest/gtest.h>

using namespace qzhost;

TEST(MergeDiagnosisTest, NamesTheLabelTheElementOrTheAttributeAtFault) {
  struct Case {
    const char* profile;
    std::u16string page, labelled, output;
    std::string says;  // what the explanation holds; "" for none
  } cases[] = {
      {"php", u"<p>\n<?= 1 ?></p>", u"<p>\n<!--QZVX 0 --><?= 1 ?><!--QZVX 1 --></p>", u"<p>\n<!--QZVX 0 -->1",
       "the server code that starts at label 0 (line 2 of the page) produced output whose closing label never came "
       "back; the server may have stopped early (an exit or a fatal error) or dropped part of the page"},
      // Label numbers as the library reads them back: signed, after white
      // space, held at the 32-bit range; a label no page holds has no line.
      {"php", u"<?= 1 ?>", u"<!--QZVX 0 --><?= 1 ?><!--QZVX 1 -->",
       u"<!--QZVX 0 -->1<!--QZVX\n+1 --><!--QZVX -2 --><!--QZVX x --><!--QZVX 99999999999 --><!--QZVX\t+4 -->",
       "the server code that starts at label 4 produced output"},
      {"php", u"<?= 1 ?>", u"<!--QZVX 0 --><?= 1 ?><!--QZVX 1 -->", u"<!--QZVX 0 -->1<!--QZVX 1 --><!--QZVX", ""},
      // The page leaves a server element open; of two, the one on the
      // line of the label that has no end is named.
      {"asp", u"<div runat=\"server\">\n<asp:Panel runat=\"server\"><%= 1 %>",
       u"<!--QZVX 0 --><div runat=\"server\">\n<asp:Panel runat=\"server\"><%= 1 %>",
       u"<!--QZVX 0 --><div>\n<span>1",
       "the server code that starts at label 0 (line 1 of the page) has no end in the page itself: an element whose "
       "content is not HTML (such as one with runat=\"server\") is not closed; in the page, the server element <div> "
       "(line 1) is never closed; its content is not HTML"},
      {"asp", u"<p>a</p>\n<div runat=\"server\">\n<asp:Panel runat=\"server\"><%= 1 %>",
       u"<p>a</p>\n<div runat=\"server\">\n<!--QZVX 0 --><asp:Panel runat=\"server\"><%= 1 %>",
       u"<p>a</p>\n<div>\n<!--QZVX 0 --><span>1", "the server element <asp:Panel> (line 3) is never closed"},
      {"asp", u"<div><form runat=\"server\"></div>\n<p><%= 1 %>",
       u"<div><form runat=\"server\"></div>\n<p><!--QZVX 0 --><%= 1 %>", u"<div><form></div>\n<p><!--QZVX 0 -->1",
       "is not closed\n"},
      // A label attribute that left its place after the tag's name.
      {"php", u"<p class=\"a\">", u"<p qzvx=\"0\"  class=\"a\">", u"<p>\n<p class=\"a\" qzvx=\"0\" >",
       "the server moved or rewrote the label attribute of a tag (line 2 of its output); labels must come back where "
       "they were put"},
      {"php", u"<p class=\"a\">", u"<p qzvx=\"0\"  class=\"a\">", u" qzvx=\"0\" <p qzvx=\"0\" class=\"b\">",
       "the server moved or rewrote the label attribute of a tag (line 1"},
      {"php", u"<p class=\"a\">", u"<p qzvx=\"0\"  class=\"a\">", u"p qzvx=\"0\" <!--QZVX 5", "label attribute"},
      {"php", u"<p class=\"a\">", u"<p qzvx=\"0\"  class=\"a\">", u"<p> qzvx=\"0\" ", "label attribute"},
      {"php", u"<p class=\"a\">", u"<p qzvx=\"0\"  class=\"a\">", u"<p qzvx=\"0\" class=\"b\">", ""},
  };
  for (const Case& c : cases) {
    std::string why = ExplainRejectedMerge(c.page, c.labelled, c.output, *FindProfile(c.profile)) + "\n";
    if (c.says.empty())
      EXPECT_EQ(why, "\n");
    else
      EXPECT_NE(why.find(c.says), std::string::npos) << why;
  }
}
