// Whole translations through the loaded library: small pages through the
// real php and erb with their exact merged pages, and the round trip, in
// which a server that hands the labelled page back unchanged must give back
// exactly the page.
#include "Translator.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "Files.h"
#include "Library.h"
#include "Server.h"
#include "Utf8.h"

using namespace qzhost;

namespace {

constexpr char16_t kHilite[] = u" qzTranslatedValue=\"hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";

std::u16string Font(std::u16string_view text) {
  return u"<font hilitecolor=\"Dyn Up-to-Date Color\">" + std::u16string(text) + u"</font>";
}

// A lock around server code (already URL-encoded as encoded) that is no tag.
std::u16string Lock(std::u16string_view encoded, std::u16string_view code, std::u16string_view output) {
  return u"<qz:lock code=\"" + std::u16string(encoded) + u"\"><qz:invisible>" + std::u16string(code) +
         u"</qz:invisible>" + std::u16string(output) + u"</qz:lock>";
}

bool HaveCommand(const char* name) {
  ServerRun run;
  std::string error;
  return RunServer(std::string("command -v ") + name, ".", "", &run, &error) && run.Succeeded();
}

class TranslatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(LoadTranslatorLibrary(QZ_LIBRARY_PATH, engine, &error)) << error;
    char temp[] = "/tmp/qztranslateXXXXXX";
    ASSERT_NE(mkdtemp(temp), nullptr);
    folder = temp;
  }
  void TearDown() override {
    std::string command = "rm -rf '" + folder + "'";
    ServerRun run;
    std::string error;
    RunServer(command, "/", "", &run, &error);
  }

  void WriteFile(const std::string& name, const std::string& bytes) {
    std::string path = folder + "/" + name;
    mkdir(FolderOf(path).c_str(), 0777);
    std::string error;
    ASSERT_TRUE(WriteWholeFile(path, bytes, &error)) << error;
  }

  // Translates page with the profile's own server, run in the test's folder.
  std::u16string Translate(const char* profileName, const std::u16string& page) {
    const Profile& profile = *FindProfile(profileName);
    TranslationSession session(engine, profile);
    std::u16string labelled, output, merged;
    std::string error;
    EXPECT_TRUE(session.Start(&error) && session.Label(page, &labelled, &error)) << error;
    ServerRun run;
    EXPECT_TRUE(RunServer(profile.serverCommand, folder, EncodeUtf8(labelled), &run, &error)) << error;
    EXPECT_TRUE(run.Succeeded()) << run.errors;
    size_t at;
    EXPECT_EQ(DecodeUtf8(run.output, &output, &at), Utf8Error::kNone);
    EXPECT_TRUE(session.Merge(output, &merged, &error)) << error << "\nserver output:\n" << run.output;
    return merged;
  }

  // Translates page with a server that returns the labelled page unchanged.
  std::u16string Echo(const Profile& profile, const std::u16string& page) {
    TranslationSession session(engine, profile);
    std::u16string labelled, merged;
    std::string error;
    EXPECT_TRUE(session.Start(&error) && session.Label(page, &labelled, &error)) << error;
    EXPECT_TRUE(session.Merge(labelled, &merged, &error)) << error << "\nlabelled:\n" << EncodeUtf8(labelled);
    return merged;
  }

  Engine engine;
  std::string folder;
};

}  // namespace

TEST_F(TranslatorTest, PhpPages) {
  if (!HaveCommand("php")) GTEST_SKIP() << "php is not installed";

  // A directive's output is locked, the directive kept invisible inside.
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<p>Hello, <?= \"Bob\" ?>!</p>\n")),
            EncodeUtf8(u"<p>Hello, " +
                       Lock(u"%3C?=%20%22Bob%22%20?%3E", u"<?= \"Bob\" ?>", Font(u"Bob")) + u"!</p>\n"));

  // Attribute values computed by the server: the tag keeps its source
  // attributes and carries the server's in qzTranslatedValue.
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<img src=\"<?= 'a' . '.gif' ?>\" alt=\"A b\">")),
            "<img src=\"<?= 'a' . '.gif' ?>\" alt=\"A b\" qzTranslatedValue=\"src=a.gif alt=%22A%20b%22  "
            "hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">");

  // A loop producing tags: the first pass stands in the page, the passes the
  // server repeated become one lock of their own.
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<ul><?php foreach ([1, 2] as $n): ?><li><?= $n ?></li><?php endforeach; ?></ul>")),
            EncodeUtf8(u"<ul>" +
                       Lock(u"%3C?php%20foreach%20(%5B1,%202%5D%20as%20$n):%20?%3E",
                            u"<?php foreach ([1, 2] as $n): ?>", u"") +
                       u"<li>" + Lock(u"%3C?=%20$n%20?%3E", u"<?= $n ?>", Font(u"1")) + u"</li>" +
                       u"<qz:lock code=\"\"><li" + kHilite + u">2</li></qz:lock>" +
                       Lock(u"%3C?php%20endforeach;%20?%3E", u"<?php endforeach; ?>", u"") + u"</ul>"));

  // An include: its output is locked and its tags marked as dynamic.
  WriteFile("inc/part.php", "<b><?= 6 * 7 ?></b>");
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<div><?php include \"inc/part.php\"; ?></div>")),
            EncodeUtf8(u"<div>" +
                       Lock(u"%3C?php%20include%20%22inc/part.php%22;%20?%3E", u"<?php include \"inc/part.php\"; ?>",
                            u"<b" + std::u16string(kHilite) + u">42</b>") +
                       u"</div>"));

  // A server tag the server left out keeps its tag form, marked with the
  // translated value; the code around it is locked with empty output.
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<p>a</p><?php if (false): ?><script src=\"x.js\"></script><?php endif; ?>")),
            EncodeUtf8(u"<p>a</p>" + Lock(u"%3C?php%20if%20(false):%20?%3E", u"<?php if (false): ?>", u"") +
                       u"<script" + kHilite + u" src=\"x.js\"></script>" +
                       Lock(u"%3C?php%20endif;%20?%3E", u"<?php endif; ?>", u"")));

  // Non-ASCII text around and inside server output keeps its offsets.
  EXPECT_EQ(EncodeUtf8(Translate("php", u"<p>é😀<?= \"ü\" ?>ö</p>")),
            EncodeUtf8(u"<p>é😀" + Lock(u"%3C?=%20%22ü%22%20?%3E", u"<?= \"ü\" ?>", Font(u"ü")) + u"ö</p>"));
}

TEST_F(TranslatorTest, ErbPages) {
  if (!HaveCommand("erb")) GTEST_SKIP() << "erb is not installed";

  EXPECT_EQ(EncodeUtf8(Translate("erb", u"<p>Hello, <%= \"Bob\" %>!</p>\n")),
            EncodeUtf8(u"<p>Hello, " +
                       Lock(u"%3C%25=%20%22Bob%22%20%25%3E", u"<%= \"Bob\" %>", Font(u"Bob")) + u"!</p>\n"));

  EXPECT_EQ(EncodeUtf8(Translate("erb", u"<a href=\"<%= 'x' * 2 %>.html\" class=c>k</a>")),
            "<a href=\"<%= 'x' * 2 %>.html\" class=c qzTranslatedValue=\"href=xx.html class=c  "
            "hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">k</a>");

  EXPECT_EQ(EncodeUtf8(Translate("erb", u"<ul><% [1, 2].each do |n| %><li><%= n %></li><% end %></ul>")),
            EncodeUtf8(u"<ul>" +
                       Lock(u"%3C%25%20%5B1,%202%5D.each%20do%20%7Cn%7C%20%25%3E", u"<% [1, 2].each do |n| %>", u"") +
                       u"<li>" + Lock(u"%3C%25=%20n%20%25%3E", u"<%= n %>", Font(u"1")) + u"</li>" +
                       u"<qz:lock code=\"\"><li" + kHilite + u">2</li></qz:lock>" +
                       Lock(u"%3C%25%20end%20%25%3E", u"<% end %>", u"") + u"</ul>"));

  WriteFile("inc/part.html", "<i>part</i>");
  EXPECT_EQ(EncodeUtf8(Translate("erb", u"<div><%= File.read(\"inc/part.html\") %></div>")),
            EncodeUtf8(u"<div>" +
                       Lock(u"%3C%25=%20File.read(%22inc/part.html%22)%20%25%3E", u"<%= File.read(\"inc/part.html\") %>",
                            u"<i" + std::u16string(kHilite) + u">part</i>") +
                       u"</div>"));

  EXPECT_EQ(EncodeUtf8(Translate("erb", u"<% if false %><style>p{}</style><% end %>")),
            EncodeUtf8(Lock(u"%3C%25%20if%20false%20%25%3E", u"<% if false %>", u"") + u"<style" + kHilite +
                       u">p{}</style>" + Lock(u"%3C%25%20end%20%25%3E", u"<% end %>", u"")));
}

TEST_F(TranslatorTest, ASlashRightAfterTheLastAttributeIsRebuilt) {
  // Even unchanged, such a tag comes back with the source's attribute text
  // (its "/" included) and the translated value before the server's "/>".
  const Profile& php = *FindProfile("php");
  EXPECT_EQ(EncodeUtf8(Echo(php, u"<img src=\"a\"/>")),
            "<img src=\"a\"/ qzTranslatedValue=\"src=a  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"/>");
  EXPECT_EQ(EncodeUtf8(Echo(php, u"<input disabled/>")),
            "<input disabled/ qzTranslatedValue=\"disabled=  hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"/>");
  // With white space before the "/" the tag is left alone.
  EXPECT_EQ(EncodeUtf8(Echo(php, u"<img src=\"a\" />")), "<img src=\"a\" />");
}

TEST_F(TranslatorTest, UnchangedServerOutputGivesBackHandWrittenPages) {
  struct Case {
    const char* profile;
    const char16_t* page;
  } cases[] = {
      {"php", u""},
      {"php", u"plain text, no markup at all"},
      {"php", u"<?php $a = 1; ?>\n<p class=\"x\" id='y' hidden data-v=3>é😀 <?= $a ?></p>"},
      {"php", u"<a href=\"<?= $u ?>\" title=\"a > b\">link</a><input <?php echo 'checked'; ?>>"},
      {"php", u"<script>if (a < b) document.write('<p>');</script><style>p > b {}</style>"},
      {"php", u"<title><?= $t ?></title><!-- <?php note ?> --><!DOCTYPE html>"},
      {"php", u"<p a=\"1\" >x</p><br /><img src=\"a\"\n/><p\tb='2'\n>y</p>"},
      {"php", u"</stray><p>unclosed <b>tags <?= 1 ?>"},
      {"php", u"<?php if ($x): ?><script src=\"a.js\"></script><?php endif; ?>"},
      {"php", u"a < b <p class=\"c\">text<!-- end"},
      {"php", u"<?php echo 'no closing mark';"},
      {"erb", u"<% 3.times do |i| %><li id=\"i<%= i %>\"><%= i %></li><% end %>"},
      {"erb", u"<%# comment %><%% literal %><p class=<%= c %>>x</p>"},
      {"erb", u"<!--#include file=\"inc.html\"--><p a=\"&amp;\">"},
      {"asp", u"<%@ Page Language=\"C#\" %><form runat=\"server\"><p class=\"x\"><%= a %></p></form>"},
      {"asp", u"<asp:Label ID=\"l\" runat=\"server\" Text=\"t\" /><asp:Panel runat=\"server\"><b>x</b></asp:Panel>"},
      {"asp", u"<div runat=\"server\"><div><p class=\"x\">nested</p></div></div><asp:Literal runat=server />"},
      {"asp", u"<%@ Register TagPrefix=\"uc\" %><%@ taglib prefix=\"my\" uri=\"u\" %><my:box a=\"1\">t</my:box>"},
      {"asp", u"</asp:Stray><asp:Open a=\"1\"><p id=\"q\">"},
  };
  for (const Case& c : cases) {
    std::u16string page = c.page;
    EXPECT_EQ(EncodeUtf8(Echo(*FindProfile(c.profile), page)), EncodeUtf8(page)) << c.profile;
  }
}

TEST_F(TranslatorTest, UnchangedServerOutputGivesBackTheExamples) {
  for (const char* name : {"hello.php", "hello.erb", "hello.aspx", "inc/footer.php"}) {
    std::string path = std::string(QZ_EXAMPLES_DIR) + "/" + name;
    std::string bytes, error;
    ASSERT_TRUE(ReadWholeFile(path, &bytes, &error)) << error;
    std::u16string page;
    size_t at;
    ASSERT_EQ(DecodeUtf8(bytes, &page, &at), Utf8Error::kNone) << name;
    EXPECT_EQ(EncodeUtf8(Echo(*ProfileForPath(path), page)), bytes) << name;
  }
}

namespace {

// Random pages of the markup the translator meets, well-formed or not, but
// without what the merge rebuilds on purpose: a "/" right after a tag's last
// attribute, and no label-like texts. Elements that make their content
// non-HTML are always closed, as the merge needs.
class PageGenerator {
 public:
  explicit PageGenerator(uint32_t seed) : rng_(seed) {}

  std::u16string Page() {
    std::u16string page;
    Nodes(&page, 0, false);
    if (Chance(8)) page += Pick({u"<p class=\"cut", u"<!-- cut", u"<?php cut", u"<% cut", u"<script>cut", u"<b"});
    return page;
  }

 private:
  bool Chance(int oneIn) { return std::uniform_int_distribution<int>(0, oneIn - 1)(rng_) == 0; }
  int Below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
  std::u16string Pick(std::initializer_list<const char16_t*> options) { return *(options.begin() + Below(static_cast<int>(options.size()))); }

  void Nodes(std::u16string* out, int depth, bool closedOnly) {
    for (int n = Below(depth == 0 ? 12 : 5); n > 0; --n) Node(out, depth, closedOnly);
  }

  void Node(std::u16string* out, int depth, bool closedOnly) {
    switch (Below(10)) {
      case 0:
      case 1:
        *out += Pick({u"text", u" ", u"\n", u"a < b", u"x > y", u"&amp; é", u"😀", u"#x# ", u"50% ?", u"\"q\" 'r'"});
        break;
      case 2:
        *out += Pick({u"<?= $x ?>", u"<?php if ($a > 1): ?>", u"<%= y %>", u"<% z %>", u"<!-- c -->",
                      u"<!DOCTYPE html>", u"<!--#include file=\"f\"-->", u"<![CDATA[ <p> ]]>", u"<?xml v?>",
                      u"<!-- <?= inside ?> -->", u"<%@ Page %>"});
        break;
      case 3:
        *out += Pick({u"<script>var s = '<p>' + (a < b);</script>", u"<style>p > b { }</style>",
                      u"<script src=\"<?= $s ?>\"></script>", u"<SCRIPT><% x %></script >", u"<script/>"});
        break;
      case 4:
        // A tag left open, or a stray close tag, could end an enclosing
        // element whose content is not HTML at the wrong place.
        if (closedOnly) *out += Pick({u"<br>", u"<br/>", u"<hr />"});
        else *out += Pick({u"</stray>", u"</p>", u"<br>", u"<br/>", u"<hr />", u"</asp:Gone>", u"<p>"});
        break;
      default:
        Element(out, depth, closedOnly);
    }
  }

  void Element(std::u16string* out, int depth, bool closedOnly) {
    std::u16string name = Pick({u"p", u"div", u"span", u"b", u"li", u"a", u"td", u"title", u"form", u"asp:Label",
                                u"asp:Panel", u"x:y"});
    std::u16string attrs;
    bool runat = false;
    for (int n = Below(4); n > 0; --n) {
      switch (Below(9)) {
        case 0: attrs += u" class=\"c\""; break;
        case 1: attrs += u" title='a > b \"q\"'"; break;
        case 2: attrs += u" href=\"<?= $u ?>\""; break;
        case 3: attrs += u" hidden"; break;
        case 4: attrs += u" data-n=3"; break;
        case 5: attrs += u" <?php echo 'on'; ?>"; break;
        case 6: attrs += u"\n id = \"<%= id %>\""; break;
        case 7: attrs += u" alt=\"é 😀\""; break;
        default:
          attrs += u" runat=\"server\"";
          runat = true;
      }
    }
    std::u16string closing = Pick({u"", u"", u" ", u"\n"});
    bool selfClosing = Chance(6);
    if (selfClosing) closing = attrs.empty() ? Pick({u"/", u" /"}) : u" /";
    *out += u"<" + name + attrs + closing + u">";
    if (selfClosing) return;
    if (depth < 4) Nodes(out, depth + 1, closedOnly || runat);
    if (!closedOnly && !runat && Chance(5)) return;
    *out += u"</" + name + Pick({u">", u">", u" >"});
  }

  std::mt19937 rng_;
};

}  // namespace

TEST_F(TranslatorTest, UnchangedServerOutputGivesBackGeneratedPages) {
  PageGenerator generator(20240611);
  const char* profiles[] = {"php", "erb", "asp"};
  for (int i = 0; i < 600; ++i) {
    std::u16string page = generator.Page();
    const Profile& profile = *FindProfile(profiles[i % 3]);
    ASSERT_EQ(EncodeUtf8(Echo(profile, page)), EncodeUtf8(page)) << "page " << i << ", profile " << profile.name;
  }
}
