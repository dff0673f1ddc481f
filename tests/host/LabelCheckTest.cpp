// The label check on a page translated through the real php: its output as
// php prints it passes, and the same output edited to drop, repeat, swap,
// renumber, corrupt or cut labels gives the findings that name each lost or
// misplaced piece of server code by its page line.
#include "LabelCheck.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <regex>
#include <utility>
#include <vector>

#include "Library.h"
#include "Server.h"
#include "TranslationSession.h"
#include "Utf8.h"

using namespace qzhost;

namespace {

// Lines 1 to 5 hold an expression, an attribute and a directive, a loop, a
// branch not taken and a function whose body is page text.
const char kPage[] =
    "<h1><?= \"Title\" ?></h1>\n"
    "<p class=\"<?= 'c' ?>\"><?= \"B\" ?></p>\n"
    "<ul><?php foreach ([1, 2] as $n): ?><li><?= $n ?></li><?php endforeach; ?></ul>\n"
    "<?php if (false): ?><b>no</b><?php endif; ?>\n"
    "<?php function f() { ?><i>f</i><?php } ?><?php f(); ?>\n";

const char* const kNames[] = {"no-output", "no-labels", "unknown", "malformed", "moved",
                              "out-of-order", "cut-off", "never-closed", "code-missing", "code-cut", "open-at-end", "not-labelled"};

// The findings as "kind@page line", in order.
std::string Findings(const LabelReport& report) {
  std::string all;
  for (const LabelWarning& w : report.warnings)
    all += std::string(all.empty() ? "" : " ") + kNames[static_cast<int>(w.kind)] + "@" + std::to_string(w.pageLine);
  return all;
}

std::string Edited(const std::string& text, const std::string& pattern, const std::string& replacement) {
  std::string edited = std::regex_replace(text, std::regex(pattern), replacement, std::regex_constants::format_first_only);
  EXPECT_NE(edited, text) << pattern;
  return edited;
}

class LabelCheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v php >/dev/null") != 0) GTEST_SKIP() << "php is not installed";
    std::string error;
    ASSERT_TRUE(LoadTranslatorLibrary(QZ_LIBRARY_PATH, engine, &error)) << error;
    std::u16string page, labelled;
    size_t at;
    ASSERT_EQ(DecodeUtf8(kPage, &page, &at), Utf8Error::kNone);
    ASSERT_TRUE(session.Start(&error) && session.Label(page, &labelled, &error)) << error;
    ServerRun run;
    ASSERT_TRUE(RunServer(FindProfile("php")->serverCommand, "/", EncodeUtf8(labelled), &run, &error)) << error;
    ASSERT_EQ(run.exitStatus, 0) << run.errors;
    output = run.output;
  }

  LabelReport Check(const std::string& edited) {
    std::u16string text;
    size_t at;
    EXPECT_EQ(DecodeUtf8(edited, &text, &at), Utf8Error::kNone);
    return session.Check(text);
  }

  Engine engine;
  TranslationSession session{engine, *FindProfile("php")};
  std::string output;  // php's own output for the labelled page
};

}  // namespace

TEST_F(LabelCheckTest, PhpsOwnOutputPassesAndTellsWhatEachPieceDid) {
  LabelReport report = Check(output);
  EXPECT_EQ(Findings(report), "") << output;
  ASSERT_EQ(report.pieces.size(), 10u);
  const CheckedPiece& loopBody = report.pieces[3];
  EXPECT_EQ(EncodeUtf8(loopBody.code), "<?= $n ?>");
  EXPECT_EQ(loopBody.line, 3u);
  EXPECT_EQ(loopBody.timesBack, 2);
  EXPECT_TRUE(loopBody.producedOutput && loopBody.codeKept);
  // The branch not taken never printed its end's labels, but the lock over
  // the branch holds its code.
  const CheckedPiece& endif = report.pieces[6];
  EXPECT_EQ(EncodeUtf8(endif.code), "<?php endif; ?>");
  EXPECT_TRUE(endif.timesBack == 0 && endif.codeKept);
  ASSERT_EQ(report.tags.size(), 1u);
  EXPECT_TRUE(report.tags[0].holdsServerCode && report.tags[0].timesBack == 1 && report.tags[0].line == 2);
}

TEST_F(LabelCheckTest, EditedOutputsNameTheirFaultsByPageLine) {
  struct Case {
    const char* edit;
    std::string edited;
    const char* findings;
  } cases[] = {
      {"drop a closing label", Edited(output, "<!--QZVX 3 -->", ""), "out-of-order@2"},
      {"drop a piece", Edited(output, "<!--QZVX 2 -->B<!--QZVX 3 -->", ""), "code-missing@2"},
      {"drop a label attribute", Edited(output, " qzvx=\"0\" ", ""), "code-missing@2"},
      {"repeat a piece", Edited(output, "(<!--QZVX 2 -->B<!--QZVX 3 -->)", "$1$1"), "out-of-order@2"},
      {"swap two closing labels",
       Edited(Edited(Edited(output, "QZVX 1 ", "QZVX x "), "QZVX 3 ", "QZVX 1 "), "QZVX x ", "QZVX 3 "),
       "out-of-order@2"},
      {"renumber a label", Edited(output, "QZVX 2 ", "QZVX 99 "), "unknown@0 out-of-order@2 code-missing@2"},
      // Label 12 opens the branch of line 4: the merge's lock runs from there,
      // and what stood between is gone.
      {"renumber to a label of a later piece", Edited(output, "QZVX 2 ", "QZVX 12 "),
       "code-missing@2 code-missing@3 code-missing@3 code-missing@3 code-missing@4"},
      {"corrupt a label comment", Edited(output, "QZVX 2 ", "QZVX two "),
       "malformed@0 out-of-order@2 code-missing@2"},
      {"corrupt a label attribute", Edited(output, "qzvx=\"0\"", "qzvx=\"zero\""), "malformed@2"},
      {"move a label attribute", Edited(output, " qzvx=\"0\"  (class=\"c\")", " $1 qzvx=\"0\" "), "moved@2"},
      {"hide a label in a comment", Edited(output, "<!--QZVX 0 -->", "<!-- <!--QZVX 0 -->"),
       "malformed@0 out-of-order@1 code-missing@1"},
      {"cut off inside a piece", output.substr(0, output.find("B<!--QZVX 3")), "cut-off@2"},
      {"cut off between pieces", output.substr(0, output.find("</p>")),
       "code-missing@3 code-missing@3 code-missing@3 code-missing@4 code-missing@4 code-missing@5 code-missing@5 "
       "code-missing@5"},
      {"loop back from a piece that never closes", output.substr(0, output.find("<!--QZVX 3")) + "<!--QZVX 1 -->",
       "cut-off@2"},
      {"write a label otherwise", Edited(output, "QZVX 2 ", "QZVX\t+02 "), "malformed@2"},
      {"write a label without its last blank", Edited(output, "QZVX 2 -->", "QZVX 2-->"), "malformed@2"},
      {"drop a label's number", Edited(output, "QZVX 2 ", "QZVX "), "malformed@0 out-of-order@2 code-missing@2"},
      {"give a label a negative or a huge number",
       Edited(Edited(output, "QZVX 2 ", "QZVX -2 "), "QZVX 3 ", "QZVX 99999999999 "),
       "unknown@0 unknown@0 code-missing@2"},
      {"write the label attribute in capitals", Edited(output, "qzvx=", "QZVX="), "malformed@0 code-missing@2"},
      {"give the label attribute an unknown number", Edited(output, "qzvx=\"0\"", "qzvx=\"7\""),
       "unknown@0 code-missing@2"},
      {"give it a number that is no number", Edited(output, "qzvx=\"0\"", "qzvx=\"-7x\""),
       "malformed@0 code-missing@2"},
      {"hide a label in a script", Edited(output, "(<!--QZVX 2 -->)", "<script>$1</script>"),
       "malformed@0 out-of-order@2 code-missing@2"},
      {"leave the label attribute without its value", Edited(output, "qzvx=\"0\"", "qzvx"), "moved@2 malformed@2"},
      {"put the label attribute last", Edited(output, " qzvx=\"0\"  (class=\"c\")", " $1 qzvx"), "moved@2 malformed@2"},
      // The merge takes a label attribute wherever it comes back, and the
      // last of a tag: the wrong tag gets the source attributes, the tag
      // before loses its own (both passed without a word before).
      {"put the label attribute on another tag", Edited(output, "<h1>", "<h1 qzvx=\"0\">"), "moved@2"},
      {"give a tag a second label attribute", Edited(output, "qzvx=\"0\"", "qzvx=\"0\" qzvx=\"0\""), "moved@2"},
      {"and an unknown second one", Edited(output, "qzvx=\"0\"", "qzvx=\"0\" qzvx=\"7\""),
       "moved@0 unknown@0 code-missing@2"},
      {"print nothing but the labels", "<!--QZVX 0 --><!--QZVX 1 -->",
       "code-missing@2 code-missing@3 code-missing@3 code-missing@3 code-missing@4 code-missing@4 code-missing@5 "
       "code-missing@5 code-missing@5 code-missing@2"},
  };
  for (const Case& c : cases) EXPECT_EQ(Findings(Check(c.edited)), c.findings) << c.edit << ":\n" << c.edited;
}

TEST_F(LabelCheckTest, AServerThatPrintsNothingOrIgnoresThePageIsToldPlainly) {
  TranslationSession typed(engine, *FindProfile("php"));
  std::u16string labelled;
  std::string error;
  ASSERT_TRUE(typed.Start(&error) && typed.Label(u"<!--QZVX 0 -->x<?= 1 ?>", &labelled, &error)) << error;
  EXPECT_EQ(Findings(typed.Check(labelled)), "no-labels@0") << "labels typed into the page: nothing can be checked";
  std::string everyPiece =
      " code-missing@1 code-missing@2 code-missing@3 code-missing@3 code-missing@3 code-missing@4 code-missing@4 "
      "code-missing@5 code-missing@5 code-missing@5 code-missing@2";
  EXPECT_EQ(Findings(Check("")), "no-output@0" + everyPiece);
  EXPECT_EQ(Findings(Check(" \n")), "no-output@0" + everyPiece);
  EXPECT_EQ(Findings(Check("Hello")), "no-labels@0" + everyPiece);
}

// The label places are found by walking the page and the labelled page side
// by side; a labelled page that is not the page with labels numbered from 0
// in order finds none.
TEST(LocateLabelsTest, WalksThePageAndTheLabelledPageSideBySide) {
  // Page text that starts like either label is page text.
  const std::u16string page = u"<p a>x<!-- c --> q<%y%>";
  LabelPlaces places;
  ASSERT_TRUE(LocateLabels(page, u"<p qzvx=\"0\"  a>x<!-- c --> q<!--QZVX 0 --><%y%><!--QZVX 1 -->", &places));
  EXPECT_EQ(places.comments, (std::vector<size_t>{18, 23}));
  EXPECT_EQ(places.attributes, (std::vector<size_t>{2}));
  EXPECT_TRUE(LocateLabels(u"a<!", u"a<!", &places) && places.comments.empty()) << "a \"<!\" at the very end";
  const std::pair<const char16_t*, const char16_t*> refused[] = {
      {u"ab", u"abc"},                        // longer than the page
      {u"ab", u"ax"},                         // other text
      {u"a!!c", u"a<!c"},                     // other text where a label could start
      {u"abc", u"ab"},                        // the page goes on
      {u"a", u"<!--QZVX 1 -->a"},             // not numbered from 0
      {u"a", u"a<!--QZVX 0 --><!--QZVX 0 -->"},  // a number twice
      {u"a q", u"a qzvx=\"1\" q"},            // an attribute label out of turn
  };
  for (const auto& [text, labelled] : refused) {
    std::u16string shown = labelled;
    EXPECT_FALSE(LocateLabels(text, labelled, &places)) << std::string(shown.begin(), shown.end());
  }
}
