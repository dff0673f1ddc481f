// The page scanner against tricky markup, checked item by item, and against
// random pages, checked for what every scan must promise.
#include "Scanner.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Utf8.h"

using namespace qzhost;

namespace {

using Items = std::vector<std::string>;

// Writes every report in a line of its own, one line for a whole tag with
// its attributes, texts in brackets; and checks what holds for every scan:
// the reports cover the page in order, without gaps or overlaps; tags begin
// with "<" and end just past ">", with their names, values and closing text
// inside them in order; two text runs never follow each other.
class Recorder : public ScanSink {
 public:
  explicit Recorder(std::u16string_view page) : page_(page) {}
  Items items;
  size_t pos = 0;               // where the next report must begin
  int reportsLeft = INT32_MAX;  // the report that uses up the last one is refused

  bool Directive(std::u16string_view text, int32_t at) override { return At(at, u"<", text.substr(1), "dir", text); }
  bool OpenTagBegin(std::u16string_view name, int32_t at) override { return At(at, u"<", name, "open", name); }
  bool CloseTagBegin(std::u16string_view name, int32_t at) override { return At(at, u"</", name, "close", name); }
  bool Text(std::u16string_view text, int32_t at) override {
    EXPECT_FALSE(text.empty() || last_ == "text");
    return At(at, u"", text, "text", text);
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    EXPECT_EQ(last_, "open");
    Inside(name);
    Inside(value);
    // Built by appending: g++ 12 at -O3 (a Release build) takes `" " + std::string`
    // for an overlapping copy and -Werror stops the build.
    std::string item = " ";
    item += EncodeUtf8(name);
    item += "=[";
    item += EncodeUtf8(value);
    item += "]";
    return Add(std::move(item), false);
  }
  bool OpenTagEnd(int32_t end, std::u16string_view closing) override {
    Inside(closing);
    EXPECT_EQ(closing.data() + closing.size(), page_.data() + end - 1);
    return Ends(end, "open", " [" + EncodeUtf8(closing) + "]");
  }
  bool CloseTagEnd(int32_t end) override { return Ends(end, "close", ""); }
  void Cut(Unfinished kind, int32_t at) override {
    static const char* const kNames[] = {"dir", "open", "close", "raw"};
    Add(std::string("cut ") + kNames[static_cast<int>(kind)] + " " + std::to_string(at), true);
  }

 private:
  // The report at offset at is mark and part, right where the last one ended.
  bool At(int32_t at, std::u16string_view mark, std::u16string_view part, const char* kind, std::u16string_view shown) {
    EXPECT_EQ(static_cast<size_t>(at), pos);
    EXPECT_EQ(page_.substr(at, mark.size()), mark);
    EXPECT_EQ(part.data(), page_.data() + at + mark.size());
    pos = at + mark.size() + part.size();
    last_ = kind;
    return Add(std::string(kind) + " " + std::to_string(at) + " [" + EncodeUtf8(shown) + "]", true);
  }
  void Inside(std::u16string_view part) {
    EXPECT_GE(part.data(), page_.data() + pos);
    pos = part.data() + part.size() - page_.data();
    EXPECT_LE(pos, page_.size());
  }
  // The tag begun as kind ends just past the ">" before end.
  bool Ends(int32_t end, const char* kind, std::string closing) {
    EXPECT_EQ(last_, kind);
    EXPECT_EQ(page_.substr(end - 1, 1), u">");
    pos = end;
    last_ = {};
    return Add(" end " + std::to_string(end) + closing, false);
  }
  // Adds a line, or adds to the last one.
  bool Add(std::string text, bool line) {
    if (line || items.empty()) items.emplace_back();
    items.back() += text;
    return --reportsLeft > 0;
  }

  std::u16string_view page_;
  std::string_view last_;  // kind of the last line begun, until its tag ends
};

Items Scan(std::u16string_view page) {
  Recorder r(page);
  EXPECT_TRUE(ScanPage(page, r));
  EXPECT_EQ(r.pos, page.size()) << "the whole page is covered: " << EncodeUtf8(page);
  return r.items;
}

}  // namespace

TEST(ScannerTest, ReportsEachKindOfItemWithItsOffsets) {
  // Directives of every kind, reported whole; "<!-->" is a whole comment.
  EXPECT_EQ(Scan(u"a<!-- c -->b<% x %><?php y ?><!DOCTYPE html><![CDATA[<p>]]><!-->"),
            (Items{"text 0 [a]", "dir 1 [<!-- c -->]", "text 11 [b]", "dir 12 [<% x %>]", "dir 19 [<?php y ?>]",
                   "dir 29 [<!DOCTYPE html>]", "dir 44 [<![CDATA[<p>]]>]", "dir 59 [<!-->]"}));
  // Attributes quoted both ways, unquoted, valueless, spaced around "="; a
  // close tag may carry white space.
  EXPECT_EQ(Scan(u"<p a=\"1\" b='2' c=3 d e = \"5\">t</p\n>"),
            (Items{"open 0 [p] a=[1] b=[2] c=[3] d=[] e=[5] end 29 []", "text 29 [t]", "close 30 [p] end 35"}));
  // The closing text: what stands between the last attribute (or the name)
  // and the ">".
  EXPECT_EQ(Scan(u"<br><br/><br /><p a=\"1\" /><p a=\"1\"/><p a >"),
            (Items{"open 0 [br] end 4 []", "open 4 [br] end 9 [/]", "open 9 [br] end 15 [ /]",
                   "open 15 [p] a=[1] end 26 [ /]", "open 26 [p] a=[1] end 36 [/]", "open 36 [p] a=[] end 42 [ ]"}));
  // Less-than signs that start no markup are text.
  EXPECT_EQ(Scan(u"a < b <= c </ d <1> x<</p> <"),
            (Items{"text 0 [a < b <= c </ d <1> x<]", "close 22 [p] end 26", "text 26 [ <]"}));
  // Offsets count UTF-16 units: é is one, the emoji two (a surrogate pair),
  // in text and in values; a name runs over non-ASCII units.
  EXPECT_EQ(Scan(u"é<p title=\"😀\">ü 😀</p><x:größe a>"),
            (Items{"text 0 [é]", "open 1 [p] title=[😀] end 15 []", "text 15 [ü 😀]", "close 19 [p] end 23",
                   "open 23 [x:größe] a=[] end 34 []"}));
}

TEST(ScannerTest, QuotesAndServerCodeNeverEndATagEarly) {
  // Outside a tag a ">" is plain text; an unquoted value ends at ">"; a stray
  // slash between attributes is passed over.
  EXPECT_EQ(Scan(u"<a title=\"x>y\" alt='p\"q>'>z><p / b=1/>"),
            (Items{"open 0 [a] title=[x>y] alt=[p\"q>] end 26 []", "text 26 [z>]", "open 28 [p] b=[1/] end 38 []"}));
  // Quotes and ">" inside server code in a quoted value or a close tag.
  EXPECT_EQ(Scan(u"<a href=\"<?php echo \"x>y\" ?>\">t</a <% x > y %>>"),
            (Items{"open 0 [a] href=[<?php echo \"x>y\" ?>] end 30 []", "text 30 [t]", "close 31 [a] end 47"}));
  // Standing where an attribute could (also right after the name or a
  // value), a block is an attribute named by it; inside attribute names and
  // unquoted values it is part of them.
  EXPECT_EQ(Scan(u"<td<% if a > b %> data-<%= k %>=\"v\"<% end %> href=<?= $a ? 'b' : 'c' ?>>"),
            (Items{"open 0 [td] <% if a > b %>=[] data-<%= k %>=[v] <% end %>=[] href=[<?= $a ? 'b' : 'c' ?>] "
                   "end 72 []"}));
}

// "?>" ends PHP code where PHP's lexer ends it: not inside a string, a
// heredoc or nowdoc, or a block comment; a line comment ends at it. Real
// pages hold "?>" in strings ('<?xml version="1.0" ?>') and heredocs; a
// block ended there put the next label inside the string, and php ran
// another program than the page.
TEST(ScannerTest, PhpCodeEndsWherePhpEndsIt) {
  EXPECT_EQ(Scan(u"<?php $x = '<?xml ?>'; /* ?> */ $y = \"a\\\"?>\"; $z = `?>`; ?>t"),
            (Items{"dir 0 [<?php $x = '<?xml ?>'; /* ?> */ $y = \"a\\\"?>\"; $z = `?>`; ?>]", "text 59 [t]"}));
  EXPECT_EQ(Scan(u"<?php $s = 'it\\'s ?>'; ?>t"), (Items{"dir 0 [<?php $s = 'it\\'s ?>'; ?>]", "text 25 [t]"}));
  // A line comment ends at "?>" or at the line's end; quotes in it count
  // for nothing. "#[" begins an attribute, not a comment.
  EXPECT_EQ(Scan(u"<?php # it's ?>t<?php // don't\n ?>u<?php #[A('?>')] ?>v"),
            (Items{"dir 0 [<?php # it's ?>]", "text 15 [t]", "dir 16 [<?php // don't\n ?>]", "text 34 [u]",
                   "dir 35 [<?php #[A('?>')] ?>]", "text 54 [v]"}));
  // Heredocs and nowdocs run to their name on a line of its own (indented
  // or followed by more code, as PHP 7.3 allows); "<<<" that begins none is
  // an operator's units.
  EXPECT_EQ(Scan(u"<?php $h = <<<EOT\nit's ?> {$a}\nEOTX\n  EOT;\n?>t<?= <<<'N'\n?>\nN ?>u<?php $a <<< 1 ?>v"),
            (Items{"dir 0 [<?php $h = <<<EOT\nit's ?> {$a}\nEOTX\n  EOT;\n?>]", "text 45 [t]",
                   "dir 46 [<?= <<<'N'\n?>\nN ?>]", "text 64 [u]", "dir 65 [<?php $a <<< 1 ?>]", "text 82 [v]"}));
  // Pages saved with CRLF line ends, a double-quoted name after a tab; a
  // name that begins with a digit is none.
  EXPECT_EQ(Scan(u"<?php $h = <<<\t\"E\"\r\n?>\r\nE;\r\n?>t<?php $b = <<<1A\n?>u"),
            (Items{"dir 0 [<?php $h = <<<\t\"E\"\r\n?>\r\nE;\r\n?>]", "text 30 [t]", "dir 31 [<?php $b = <<<1A\n?>]",
                   "text 50 [u]"}));
  // In a tag, the same.
  EXPECT_EQ(Scan(u"<a href=\"<?= '?>' ?>\" <?php echo \"?>\" ?>>t</a>"),
            (Items{"open 0 [a] href=[<?= '?>' ?>] <?php echo \"?>\" ?>=[] end 41 []", "text 41 [t]",
                   "close 42 [a] end 46"}));
  // A string, comment or heredoc that the page's end cuts off leaves the
  // block open to the end.
  EXPECT_EQ(Scan(u"<?php echo 'a ?><p>b</p>"), (Items{"cut dir 0", "dir 0 [<?php echo 'a ?><p>b</p>]"}));
  EXPECT_EQ(Scan(u"<?php /* ?>"), (Items{"cut dir 0", "dir 0 [<?php /* ?>]"}));
  EXPECT_EQ(Scan(u"<?php <<<A\n?>\n"), (Items{"cut dir 0", "dir 0 [<?php <<<A\n?>\n]"}));
  EXPECT_EQ(Scan(u"<?php <<<A\n?>\nA"), (Items{"cut dir 0", "dir 0 [<?php <<<A\n?>\nA]"}));
  EXPECT_EQ(Scan(u"<?php #"), (Items{"cut dir 0", "dir 0 [<?php #]"}));
  // ERB and ASP.NET end their blocks at the first "%>", strings or not.
  EXPECT_EQ(Scan(u"<% x = '%>' %>"), (Items{"dir 0 [<% x = '%>]", "text 10 [' %>]"}));
}

TEST(ScannerTest, ScriptAndStyleContentIsRawText) {
  EXPECT_EQ(Scan(u"<script>if (a<b) x('<p>');</script>"),
            (Items{"open 0 [script] end 8 []", "text 8 [if (a<b) x('<p>');]", "close 26 [script] end 35"}));
  // Any letter case; a longer name does not close, nor does a close tag
  // inside server code; a script tag that closes itself has no content.
  EXPECT_EQ(Scan(u"<STYLE>a</styles><? '</style>' ?></Style >b<script/><b>"),
            (Items{"open 0 [STYLE] end 7 []", "text 7 [a</styles><? '</style>' ?>]", "close 33 [Style] end 42",
                   "text 42 [b]", "open 43 [script] end 52 [/]", "open 52 [b] end 55 []"}));
}

TEST(ScannerTest, UnterminatedConstructsAtTheEnd) {
  // Directives run to the end of the page, even past a "%>" that shares the
  // "%" of "<%" or a ">" inside server code.
  EXPECT_EQ(Scan(u"a<!-- b"), (Items{"text 0 [a]", "cut dir 1", "dir 1 [<!-- b]"}));
  EXPECT_EQ(Scan(u"<%>"), (Items{"cut dir 0", "dir 0 [<%>]"}));
  EXPECT_EQ(Scan(u"<!DOCTYPE <? ?>"), (Items{"cut dir 0", "dir 0 [<!DOCTYPE <? ?>]"}));
  // Tags without their ">" are text, joined to the text before them: an open
  // quote or server block, an "=" at the end, a close tag.
  EXPECT_EQ(Scan(u"<p>y<p a=\"<% \">"), (Items{"open 0 [p] end 3 []", "cut open 4", "text 3 [y<p a=\"<% \">]"}));
  EXPECT_EQ(Scan(u"<p a="), (Items{"cut open 0", "text 0 [<p a=]"}));
  EXPECT_EQ(Scan(u"<b></b"), (Items{"open 0 [b] end 3 []", "cut close 3", "text 3 [</b]"}));
  // Raw content without its whole close tag: the element is no element.
  EXPECT_EQ(Scan(u"<i><script>a<b>"), (Items{"open 0 [i] end 3 []", "cut raw 3", "text 3 [<script>a<b>]"}));
  EXPECT_EQ(Scan(u"<script>a</script"), (Items{"cut raw 0", "text 0 [<script>a</script]"}));
  EXPECT_EQ(Scan(u""), (Items{}));
}

TEST(ScannerTest, ASinkThatRefusesStopsTheScan) {
  Recorder sink(u"<p a b c>t");
  sink.reportsLeft = 3;
  EXPECT_FALSE(ScanPage(u"<p a b c>t", sink));
  EXPECT_EQ(sink.items, (Items{"open 0 [p] a=[] b=[]"}));
}

TEST(ScannerTest, RandomPagesAreCoveredWholeAndInOrder) {
  static const char16_t* const kPieces[] = {
      u"<", u">", u"\"", u"'", u"=", u"/", u"!", u"-", u"%", u"?", u" ", u"\n", u"a", u"p", u"é", u"😀",
      u"<p", u"</p>", u"<script>", u"</script>", u"<!--", u"-->", u"<%", u"%>", u"<?", u"?>", u"<a href=",
      u"<style", u"</", u"<![CDATA[", u"]]>"};
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<size_t> piece(0, std::size(kPieces) - 1), length(0, 40);
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    std::u16string page;
    for (size_t n = length(rng); n > 0; --n) page += kPieces[piece(rng)];
    Scan(page);
  }
}
