// Whole translations through the loaded library: small pages through the
// real php and erb with their exact merged pages, and the round trip, in
// which a server that hands the labelled page back unchanged must give back
// exactly the page (for hand-written pages and the examples here; random
// pages are the round-trip fuzz target's).
#include "TranslationSession.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <utility>

#include "Files.h"
#include "Library.h"
#include "Server.h"
#include "Utf8.h"

using namespace qzhost;

namespace {

// The translated value that marks a tag as dynamic, and the whole attribute.
const std::string kValue = "hilitecolor=%22Dyn%20Up-to-Date%20Color%22";
const std::string kHilite = " qzTranslatedValue=\"" + kValue + "\"";
// The attribute on a tag whose attribute values the server computed.
std::string Marked(const std::string& values) { return " qzTranslatedValue=\"" + values + "  " + kValue + "\""; }

std::string Font(const std::string& text) { return "<font hilitecolor=\"Dyn Up-to-Date Color\">" + text + "</font>"; }

// A lock around server code (already URL-encoded as encoded) that is no tag.
std::string Lock(const std::string& encoded, const std::string& code, const std::string& output) {
  return "<qz:lock code=\"" + encoded + "\"><qz:invisible>" + code + "</qz:invisible>" + output + "</qz:lock>";
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

bool HaveCommand(const std::string& name) { return system(("command -v " + name + " >/dev/null").c_str()) == 0; }

std::u16string Decoded(std::string_view bytes) {
  std::u16string text;
  size_t at;
  EXPECT_EQ(DecodeUtf8(bytes, &text, &at), Utf8Error::kNone) << "at byte " << at;
  return text;
}

class TranslationSessionTest : public ::testing::Test {
 protected:
  // Loads the library; a folder for the servers holds the pages they include.
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(LoadTranslatorLibrary(QZ_LIBRARY_PATH, engine, &error)) << error;
    ASSERT_NE(mkdtemp(folder), nullptr);
    ASSERT_TRUE(WriteWholeFile(folder + std::string("/part.php"), "<b><?= 6 * 7 ?></b>", &error)) << error;
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  // The merged page of page translated with the profile's own server, run in
  // the folder, or with echo, with a server that returns the labelled page
  // unchanged.
  std::string Translate(std::string_view profileName, std::string_view page, bool echo = false) {
    const Profile& profile = *FindProfile(profileName);
    TranslationSession session(engine, profile);
    std::u16string labelled, output, merged;
    std::string error;
    EXPECT_TRUE(session.Start(&error) && session.Label(Decoded(page), &labelled, &error)) << error;
    output = labelled;
    if (!echo) {
      ServerRun run;
      EXPECT_TRUE(RunServer(profile.serverCommand, folder, EncodeUtf8(labelled), &run, &error)) << error;
      EXPECT_EQ(run.exitStatus, 0) << run.errors;
      output = Decoded(run.output);
    }
    EXPECT_TRUE(session.Merge(output, &merged, &error)) << error << "\nserver output:\n" << EncodeUtf8(output);
    return EncodeUtf8(merged);
  }

  Engine engine;
  char folder[23] = "/tmp/qztranslateXXXXXX";
};

}  // namespace

TEST_F(TranslationSessionTest, PagesThroughPhpAndErb) {
  if (!HaveCommand("php") || !HaveCommand("erb")) GTEST_SKIP() << "php or erb is not installed";
  // A directive's output is locked, the directive kept invisible inside;
  // non-ASCII text around and inside server output keeps its offsets.
  EXPECT_EQ(Translate("php", "<p>é😀 Hello, <?= \"Bob ü\" ?>!</p>\n"),
            "<p>é😀 Hello, " + Lock("%3C?=%20%22Bob%20ü%22%20?%3E", "<?= \"Bob ü\" ?>", Font("Bob ü")) + "!</p>\n");
  // Attribute values computed by the server: the tag keeps its source
  // attributes and carries the server's in qzTranslatedValue.
  EXPECT_EQ(Translate("php", "<img src=\"<?= 'a' . '.gif' ?>\" alt=\"A b\">"),
            "<img src=\"<?= 'a' . '.gif' ?>\" alt=\"A b\"" + Marked("src=a.gif alt=%22A%20b%22") + ">");
  // A loop producing tags: the first pass stands in the page, the passes the
  // server repeated become one lock of their own.
  EXPECT_EQ(Translate("php", "<ul><?php foreach ([1, 2] as $n): ?><li><?= $n ?></li><?php endforeach; ?></ul>"),
            "<ul>" +
                Lock("%3C?php%20foreach%20(%5B1,%202%5D%20as%20$n):%20?%3E", "<?php foreach ([1, 2] as $n): ?>", "") +
                "<li>" + Lock("%3C?=%20$n%20?%3E", "<?= $n ?>", Font("1")) + "</li><qz:lock code=\"\"><li" + kHilite +
                ">2</li></qz:lock>" + Lock("%3C?php%20endforeach;%20?%3E", "<?php endforeach; ?>", "") + "</ul>");
  // An include: its output is locked and its tags marked as dynamic.
  EXPECT_EQ(Translate("php", "<div><?php include \"part.php\"; ?></div>"),
            "<div>" + Lock("%3C?php%20include%20%22part.php%22;%20?%3E", "<?php include \"part.php\"; ?>",
                           "<b" + kHilite + ">42</b>") + "</div>");
  // A server tag the server left out keeps its tag form, marked with the
  // translated value; the code around it is locked with empty output.
  EXPECT_EQ(Translate("php", "<p>a</p><?php if (false): ?><script src=\"x.js\"></script><?php endif; ?>"),
            "<p>a</p>" + Lock("%3C?php%20if%20(false):%20?%3E", "<?php if (false): ?>", "") + "<script" + kHilite +
                " src=\"x.js\"></script>" + Lock("%3C?php%20endif;%20?%3E", "<?php endif; ?>", ""));
  // With erb: the same roads, with other server code.
  EXPECT_EQ(Translate("erb", "<p>Hello, <%= \"Bob\" %>!</p>\n"),
            "<p>Hello, " + Lock("%3C%25=%20%22Bob%22%20%25%3E", "<%= \"Bob\" %>", Font("Bob")) + "!</p>\n");
  EXPECT_EQ(Translate("erb", "<ul><% [1, 2].each do |n| %><li><%= n %></li><% end %></ul>"),
            "<ul>" + Lock("%3C%25%20%5B1,%202%5D.each%20do%20%7Cn%7C%20%25%3E", "<% [1, 2].each do |n| %>", "") +
                "<li>" + Lock("%3C%25=%20n%20%25%3E", "<%= n %>", Font("1")) + "</li><qz:lock code=\"\"><li" + kHilite +
                ">2</li></qz:lock>" + Lock("%3C%25%20end%20%25%3E", "<% end %>", "") + "</ul>");
}

TEST_F(TranslationSessionTest, UnchangedServerOutputGivesBackHandWrittenPagesAndTheExamples) {
  struct Case { const char* profile; std::string page; } cases[] = {
      {"php", "<?php $a = 1; ?>\n<p class=\"x\" id='y' hidden data-v=3>é😀 <?= $a ?></p>"},
      {"php", "<p a=\"1\" >x</p><br /><img src=\"a\"\n/><p\tb='2'\n>y</p>"},
      {"php", "a < b <p class=\"c\">text<?php echo 'no closing mark';"},
      {"erb", "<%# comment %><%% literal %><p class=<%= c %>>x</p>"},
      {"asp", "<%@ Register TagPrefix=\"uc\" %><%@ taglib prefix=\"my\" uri=\"u\" %><my:box a=\"1\">t</my:box>"},
  };
  for (const Case& c : cases) EXPECT_EQ(Translate(c.profile, c.page, true), c.page) << c.profile;
  for (const char* name : {"hello.php", "hello.erb", "hello.aspx", "inc/footer.php"}) {
    std::string path = std::string(QZ_EXAMPLES_DIR) + "/" + name, bytes, error;
    ASSERT_TRUE(ReadWholeFile(path, &bytes, &error)) << error;
    EXPECT_EQ(Translate(ProfileForPath(path)->name, bytes, true), bytes) << name;
  }
}

TEST_F(TranslationSessionTest, PagesThatTheEndCutsOffTranslateAndSayWhatBecomesOfTheirCode) {
  if (!HaveCommand("php") || !HaveCommand("erb")) GTEST_SKIP() << "php or erb is not installed";
  // A block open at the end is server code up to the end, kept in a lock
  // as the page has it: php, which runs it as code, gets it closed; erb,
  // which prints it as text, gets it as it stands.
  EXPECT_TRUE(Has(Translate("php", "<?php function get_footer() { echo '<i>f</i>'; } ?><p>x</p>\n<?php get_footer();"),
                  "<p>x</p>\n" + Lock("%3C?php%20get_footer();", "<?php get_footer();", "<i" + kHilite + ">f</i>")));
  EXPECT_EQ(Translate("php", "<p>x</p><!-- <?php echo 'a';"),
            "<p>x</p>" + Lock("%3C!--%20%3C?php%20echo%20'a';", "<!-- <?php echo 'a';", Font("<!-- a")));
  EXPECT_EQ(Translate("erb", "<p>x</p><%= 6 * 7"), "<p>x</p>" + Lock("%3C%25=%206%20*%207", "<%= 6 * 7", Font(" 6 * 7")));
  // Other constructs left open that hold server code: the last label comes
  // back after them and the page translates.
  EXPECT_EQ(Translate("php", "<p>x</p><!-- <?= 'a' ?>"),
            "<p>x</p>" + Lock("%3C!--%20%3C?=%20'a'%20?%3E", "<!-- <?= 'a' ?>", Font("<!-- a")));
  EXPECT_EQ(Translate("erb", "<p>x</p><%>x"), "<p>x</p>" + Lock("%3C%25%3Ex", "<%>x", Font(">x")));
  EXPECT_EQ(Translate("asp", "<p>x</p><!#include", true), "<p>x</p><!#include");
  EXPECT_EQ(Translate("erb", "<p>x</p><%>x", true), "<p>x</p><%>x");

  // What the warnings say, construct by construct.
  struct Case {
    const char* profile;
    const char* page;
    const char* says;
  } cases[] = {
      {"php", "<p>\n<?php get_footer();", "open-at-end line 2: `<?php get_footer();` is not closed before the end of "
       "the page; it is taken as one piece of server code up to the end of the page: the server gets it closed with "
       "`?>`, and the merged page keeps it as written, locked"},
      {"erb", "<p>\n<%= 6 * 7", "open-at-end line 2: `<%= 6 * 7` is not closed before the end of the page; it is "
       "taken as one piece of server code up to the end of the page: the merged page keeps it as written, locked, "
       "with what the server made of it"},
      {"php", "<p>x</p><!-- note", "open-at-end line 1: `<!-- note` is not closed before the end of the page; it runs "
       "to the end"},
      {"php", "<p>\n<p class=\"<?= 1 ?>", "not-labelled line 2: the tag `<p class=\"<?= 1 ?>` has no \">\" before the "
       "end of the page, so it and all that follows are text; the server code in it (line 2) is not labelled: the "
       "server runs it, its output comes back as plain, unlocked text, and the code itself is missing from the merged "
       "page"},
      {"php", "<script>\nvar a = <?= 1 ?>;", "not-labelled line 1: `<script>...` has no close tag before the end of the "
       "page, so it and all that follows are text; the server code in it (line 2) is not labelled"},
      {"asp", "<p>x</p><p class=\"x\"", "open-at-end line 1: the tag `<p class=\"x\"` has no \">\" before the end of "
       "the page; it and all that follows are kept as text"},
      {"php", "<p>x</p><!-- note\r\nmore",
       "open-at-end line 1: `<!-- note...` is not closed before the end of the page; it runs to the end"},
      {"asp", "<div runat=\"server\">\n<% x", "not-labelled line 2: `<% x` is not closed before the end of the page, "
       "and the library does not take it as server code here"},
  };
  for (const Case& c : cases) {
    TranslationSession session(engine, *FindProfile(c.profile));
    std::u16string labelled;
    std::string error;
    ASSERT_TRUE(session.Start(&error) && session.Label(Decoded(c.page), &labelled, &error)) << error;
    ASSERT_EQ(session.Warnings().size(), 1u) << c.page;
    const LabelWarning& w = session.Warnings()[0];
    std::string said = std::string(w.kind == Finding::kOpenAtEnd ? "open-at-end" : "not-labelled") + " line " +
                       std::to_string(w.pageLine) + ": " + w.message;
    EXPECT_TRUE(Has(said, c.says)) << said;
  }
}

namespace {

// Natives of a library that misbehaves the way each case asks: a function
// left out, a call that fails, an end that returns no text.
int Succeeds(void*, void*, uint32_t, Value*, Value* result) {
  *result = kTrue;
  return 1;
}
int Fails(void*, void*, uint32_t, Value*, Value*) { return 0; }
int GivesText(void* cx, void*, uint32_t, Value*, Value* result) {
  *result = static_cast<Engine*>(cx)->Str(u"text");
  return 1;
}

}  // namespace

TEST(TranslationSessionSequenceTest, CallsOutOfTurnAndALibraryThatMisbehaves) {
  Engine none;
  std::string error;
  std::u16string labelled, merged;
  {
    TranslationSession session(none, *FindProfile("php"));
    EXPECT_FALSE(session.Label(u"<p>", &labelled, &error));
    EXPECT_EQ(error, "the session was not started");
    EXPECT_FALSE(session.Merge(u"<p>", &merged, &error));
    EXPECT_EQ(error, "the page was not labelled before the merge");
    EXPECT_FALSE(session.Start(&error));
    EXPECT_EQ(error, "the library has no script function initialize");
  }
  EXPECT_EQ(LibraryBuildId("/no/such/library.so"), "");
  // Each case: the function the library lacks, the one that fails, the end
  // that returns no text; every other function succeeds, the ends with a text.
  struct Case {
    const char *missing, *failing, *textless;
    std::u16string page;
    std::string says;
  } cases[] = {
      {"closeTagBegin", "openTagBegin", "", u"<p>a</p>", "the library's openTagBegin failed on the item at offset 0"},
      {"closeTagBegin", "", "", u"a</p>", "the library has no script function closeTagBegin"},
      {"", "beginPreTranslate", "", u"<?= 1 ?>", "the library's beginPreTranslate failed"},
      {"", "endPreTranslate", "", u"<?= 1 ?>", "the library's endPreTranslate failed"},
      {"", "", "endPreTranslate", u"<?= 1 ?>", "the library's endPreTranslate returned no text"},
      {"", "beginPostTranslate", "", u"<?= 1 ?>", "the library's beginPostTranslate failed"},
      {"", "endPostTranslate", "", u"<?= 1 ?>", "the library rejected the merge of the server's output"},
      {"", "", "endPostTranslate", u"<?= 1 ?>", "the library's endPostTranslate returned no text"},
  };
  for (const Case& c : cases) {
    Engine engine;
    auto table = engine.Table();
    auto define = reinterpret_cast<intptr_t (*)(void*, const char*, NativeFn, int)>(table[kSlotDefineFunction]);
    for (const ScriptFunctionName& f : kScriptFunctionNames) {
      const std::string name = f.name;
      if (name == c.missing) continue;
      const bool bEnd = name == "endPreTranslate" || name == "endPostTranslate";
      define(&engine, f.name, name == c.failing ? &Fails : bEnd && name != c.textless ? &GivesText : &Succeeds, 0);
    }
    TranslationSession session(engine, *FindProfile("php"));
    EXPECT_TRUE(session.Start(&error));
    EXPECT_FALSE(session.Label(c.page, &labelled, &error) && session.Merge(u"text", &merged, &error));
    EXPECT_EQ(error, c.says);
  }
}

// The loader refuses a library that leaves a script function unregistered
// or reports its registration failed; a library without a build ID has an
// empty one.
TEST(TranslationSessionSequenceTest, ALibraryThatMisbehavesAtRegistration) {
  const std::string path = QZ_MISBEHAVING_LIBRARY_PATH;
  const std::pair<const char*, std::string> cases[] = {
      {"unregistered", "the translator library " + path + " did not register the script function initialize"},
      {"refused", "the translator library " + path + " reported a failed registration"},
      {"", ""},
  };
  for (const auto& [how, says] : cases) {
    setenv("QZ_MISBEHAVE", how, 1);
    Engine engine;
    std::string error;
    EXPECT_EQ(LoadTranslatorLibrary(path, engine, &error), says.empty()) << how;
    EXPECT_EQ(error, says);
  }
  unsetenv("QZ_MISBEHAVE");
  EXPECT_EQ(LibraryBuildId(path), "");
  Engine engine;
  std::string error;
  ASSERT_TRUE(LoadTranslatorLibrary(QZ_LIBRARY_PATH, engine, &error)) << error;
  EXPECT_EQ(LibraryBuildId(QZ_LIBRARY_PATH).size(), 40u) << "a SHA-1 build ID in hex";
}
