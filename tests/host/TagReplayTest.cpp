// The open-tag replay through the command: --check must call a page
// unmergeable exactly when the library refuses to merge it, and a refused
// merge must name what in the page caused it.
#include "TagReplay.h"

#include <random>

#include "CommandFolder.h"
#include "Library.h"
#include "TranslationSession.h"
#include "Utf8.h"

using namespace qzhost;

namespace {

struct Case {
  std::string file, page;
  bool breaksMerge;
  std::string checkSays;  // in what --check prints
  std::string mergeSays;  // in the refused merge's message
};

}  // namespace

class TagReplayTest : public CommandFolder {};

TEST_F(TagReplayTest, CheckAgreesWithTheLibraryOnWhichPagesMerge) {
  const Case cases[] = {
      {"wellformed.aspx",
       "<form runat=\"server\">\n<asp:Panel runat=\"server\"><p>a</asp:Panel>\n<asp:Label runat=\"server\" />\n"
       "<script>if (a</div>) x();</script>\n<%= 1 %></form>\n",
       false, "", ""},
      // A close tag inside server elements whose open tag stands outside
      // them: each element it pops is named; the merge names the one whose
      // label has no end.
      {"stray.aspx",
       "<div id=\"outer\">\n<asp:UpdatePanel runat=\"server\">\n<p>x</p>\n<cc2:TabPanel runat=\"server\">\n<span>\n"
       "  </DIV>\n</cc2:TabPanel>\n</asp:UpdatePanel>\n<p><%= 1 %></p>\n",
       true,
       "error: " + std::string("%PAGE%") +
           ": line 6: the close tag </DIV> at line 6, column 3 closes the server element <cc2:TabPanel> (line 4) "
           "early: it ends the <div> of line 1, which encloses it; its content is not HTML",
       "the server code that starts at label 0 (line 2 of the page) has no end in the page itself: an element whose "
       "content is not HTML (such as one with runat=\"server\") is not closed; in the page, the close tag </DIV> at "
       "line 6, column 3 closes the server element <asp:UpdatePanel> (line 2) early: it ends the <div> of line 1, "
       "which encloses it; its content is not HTML, and the library, counting it as open, labels nothing after it "
       "and refuses to merge the page (and 1 more: qztranslate --check lists them)"},
      {"never.aspx", "<p>a</p>\n<div runat=\"server\"><p>x</p>\n<p><%= 1 %></p>\n", true,
       "line 2: the server element <div> (line 2) is never closed; its content is not HTML",
       "is not closed; in the page, the server element <div> (line 2) is never closed"},
      // The element's own close tag ends it, but pops one inside it first.
      {"inner.aspx", "<div runat=\"server\">\n<asp:Label runat=\"server\">\n</div>\n<%= 1 %>\n", true,
       "closes the server element <asp:Label> (line 2) early: it ends the <div> of line 1",
       "(line 1 of the page) has no end in the page itself"},
      // Server elements whose content is HTML may be popped: the library
      // merges all the same. One is a server tag by a declared prefix.
      {"plain.aspx",
       "<%@ taglib prefix=\"x\" uri=\"u\" %>\n<p><x:a></p>\n<div><form runat=\"server\"></div></form>\n<%= 1 %>\n",
       false, "warning: %PAGE%: line 2: the close tag </p> at line 2, column 9 closes the server element <x:a>",
       ""},
      {"footer.php", "<p><?= 1 ?></p>\n<?php get_footer();", false,
       "warning: %PAGE%: line 2: the server block `<?php get_footer();` (line 2) is open at the end of the page", ""},
  };
  std::vector<std::string> all = {"--check"};
  for (const Case& c : cases) {
    Write(c.file, c.page);
    all.push_back(Path(c.file));
    auto said = [&](std::string text) {
      size_t at = text.find("%PAGE%");
      return at == std::string::npos ? text : text.replace(at, 6, Path(c.file));
    };
    ServerRun check = Command({"--check", Path(c.file)});
    EXPECT_EQ(check.exitStatus, c.breaksMerge ? 1 : 0) << c.file << ": " << check.errors;
    EXPECT_TRUE(Has(check.errors, said(c.checkSays))) << c.file << ": " << check.errors;
    EXPECT_EQ(check.errors.empty(), c.checkSays.empty()) << c.file << ": " << check.errors;
    ServerRun merge = Command({"--server", "cat", "-o", Path("merged"), Path(c.file)});
    EXPECT_EQ(merge.exitStatus, c.breaksMerge ? 1 : 0) << c.file << ": " << merge.errors;
    if (c.breaksMerge) {
      EXPECT_TRUE(Has(merge.errors, "the library rejected the merge") && Has(merge.errors, c.mergeSays))
          << c.file << ": " << merge.errors;
      // --strict stops at the label check, before the library refuses: its
      // own message must name the cause in the page as well.
      ServerRun strict = Command({"--strict", "--server", "cat", "-o", Path("merged"), Path(c.file)});
      EXPECT_TRUE(Has(strict.errors, "is not closed; in the page, ")) << c.file << ": " << strict.errors;
    } else {
      EXPECT_EQ(Read("merged"), c.page) << c.file;
    }
  }
  // Many pages at once, as xargs gives them: each is checked and named.
  ServerRun check = Command({all[0], all[1], all[2], all[3], all[4], all[5], all[6]});
  EXPECT_EQ(check.exitStatus, 1);
  EXPECT_TRUE(Has(check.errors, Path("never.aspx") + ": line 2") && Has(check.errors, Path("footer.php") + ": line 2"))
      << check.errors;
}

// Random pages of taglib directives, server elements by prefix and by
// attribute rules, and close tags in any order, under profiles with rules of
// their own: the replay finds a cause exactly when the library refuses to
// merge the page's unchanged output.
TEST(TagReplayAgreementTest, FindsACauseExactlyWhenTheLibraryRefuses) {
  Engine engine;
  std::string error;
  ASSERT_TRUE(LoadTranslatorLibrary(QZ_LIBRARY_PATH, engine, &error)) << error;
  Profile rules = *FindProfile("asp"), uneven = rules, named = rules;
  rules.ruleNames = {u"runat", u"id", u"data-x"}, rules.ruleValues = {u"server", u"main", u"y"};
  rules.ruleNonHtml = {1, 1, 0};
  uneven.ruleNames = {u"id", u"runat"}, uneven.ruleValues = {u"main"}, uneven.ruleNonHtml = {};
  named.tagPrefixes = {u"x:"}, named.nonHtmlTags = {u"x:code"}, named.ruleNonHtml = {0};
  const Profile* profiles[] = {FindProfile("asp"), &rules, &uneven, &named, FindProfile("php")};
  const char16_t* pieces[] = {
      u"<%@ taglib prefix=\"p\" uri=\"u\" %>", u"<%@taglib prefix = 'q' %>", u"<%@ TagLib PREFIX=r %>",
      u"<%@ taglib uri=x %>", u"<%@ taglibs prefix=\"s\" %>", u"<%@ taglib prefix=\" %>", u"<%@ taglib prefix=%>",
      u"<%@ taglib prefix", u"<%= 1 %>", u"t", u"<div>", u"<p:a>", u"<q:b>", u"<r:c/>", u"<div runat=\"server\">",
      u"<span RunAt=Server>", u"<form runat=\"server\">", u"<x:code>", u"<td id=\"main\">", u"<b data-x=y>",
      u"<i id=main/>", u"</div>", u"</p:a>", u"</Q:B>", u"</span>", u"</form>", u"</x:code>", u"</td>", u"</b>"};
  std::mt19937 random(8);
  for (int round = 0; round < 1500; ++round) {
    const Profile& profile = *profiles[round % std::size(profiles)];
    std::u16string page;
    for (int n = 1 + random() % 12; n > 0; --n) page += pieces[random() % std::size(pieces)];
    bool bBreaks = false;
    for (const ElementFinding& f : ReplayServerElements(page, profile)) bBreaks = bBreaks || f.breaksMerge;
    TranslationSession session(engine, profile);
    std::u16string labelled, merged;
    ASSERT_TRUE(session.Start(&error) && session.Label(page, &labelled, &error)) << error;
    EXPECT_EQ(session.Merge(labelled, &merged, &error), !bBreaks)
        << profile.name << " " << EncodeUtf8(page) << "\n" << error;
  }
}
