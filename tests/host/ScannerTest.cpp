// The page scanner against tricky markup, checked item by item, and against
// random and hostile pages, checked for what every scan must promise.
#include "Scanner.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "Utf8.h"

using namespace qzhost;

namespace {

// Writes every report as one line, texts in brackets.
class Recorder : public ScanSink {
 public:
  std::vector<std::string> items;

  bool Directive(std::u16string_view text, int32_t offset) override {
    return Add("dir " + std::to_string(offset) + " [" + EncodeUtf8(text) + "]");
  }
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    return Add("open " + std::to_string(offset) + " [" + EncodeUtf8(name) + "]");
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    return Add("attr [" + EncodeUtf8(name) + "] [" + EncodeUtf8(value) + "]");
  }
  bool OpenTagEnd(int32_t endOffset, std::u16string_view closing) override {
    return Add("end " + std::to_string(endOffset) + " [" + EncodeUtf8(closing) + "]");
  }
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override {
    return Add("close " + std::to_string(offset) + " [" + EncodeUtf8(name) + "]");
  }
  bool CloseTagEnd(int32_t endOffset) override { return Add("closeEnd " + std::to_string(endOffset)); }
  bool Text(std::u16string_view text, int32_t offset) override {
    return Add("text " + std::to_string(offset) + " [" + EncodeUtf8(text) + "]");
  }
  void Cut(Unfinished kind, int32_t offset) override {
    static const char* const kNames[] = {"dir", "open", "close", "raw"};
    Add(std::string("cut ") + kNames[static_cast<int>(kind)] + " " + std::to_string(offset));
  }

 private:
  bool Add(std::string line) {
    items.push_back(std::move(line));
    return true;
  }
};

std::vector<std::string> Scan(const std::u16string& page) {
  Recorder r;
  EXPECT_TRUE(ScanPage(page, r));
  return r.items;
}

using Items = std::vector<std::string>;

// Checks what holds for every page: the reports cover the page from its first
// unit to its last, in order, without gaps or overlaps; tags begin with "<"
// and end just past ">"; the views handed out lie inside the page; two text
// runs never follow each other.
class CoverageChecker : public ScanSink {
 public:
  explicit CoverageChecker(std::u16string_view page) : page_(page) {}

  bool Directive(std::u16string_view text, int32_t offset) override {
    Piece(text, offset);
    EXPECT_EQ(text.substr(0, 1), u"<");
    lastWasText_ = false;
    return true;
  }
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    EXPECT_EQ(static_cast<size_t>(offset), pos_);
    EXPECT_EQ(page_.substr(offset, 1), u"<");
    EXPECT_EQ(name.data(), page_.data() + offset + 1);
    inTag_ = true;
    lastWasText_ = false;
    return true;
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    EXPECT_TRUE(inTag_);
    Inside(name);
    Inside(value);
    return true;
  }
  bool OpenTagEnd(int32_t endOffset, std::u16string_view closing) override {
    EXPECT_TRUE(inTag_);
    EXPECT_EQ(page_.substr(endOffset - 1, 1), u">");
    EXPECT_EQ(closing.data() + closing.size(), page_.data() + endOffset - 1);
    pos_ = static_cast<size_t>(endOffset);
    inTag_ = false;
    return true;
  }
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override {
    EXPECT_EQ(static_cast<size_t>(offset), pos_);
    EXPECT_EQ(page_.substr(offset, 2), u"</");
    EXPECT_EQ(name.data(), page_.data() + offset + 2);
    lastWasText_ = false;
    return true;
  }
  bool CloseTagEnd(int32_t endOffset) override {
    EXPECT_EQ(page_.substr(endOffset - 1, 1), u">");
    pos_ = static_cast<size_t>(endOffset);
    return true;
  }
  bool Text(std::u16string_view text, int32_t offset) override {
    EXPECT_FALSE(text.empty());
    EXPECT_FALSE(lastWasText_);
    Piece(text, offset);
    lastWasText_ = true;
    return true;
  }

  size_t Position() const { return pos_; }

 private:
  void Piece(std::u16string_view text, int32_t offset) {
    EXPECT_EQ(static_cast<size_t>(offset), pos_);
    EXPECT_EQ(text.data(), page_.data() + offset);
    pos_ = static_cast<size_t>(offset) + text.size();
  }
  void Inside(std::u16string_view part) {
    EXPECT_GE(part.data(), page_.data() + pos_);
    EXPECT_LE(part.data() + part.size(), page_.data() + page_.size());
  }

  std::u16string_view page_;
  size_t pos_ = 0;
  bool inTag_ = false;
  bool lastWasText_ = false;
};

void ExpectCovered(const std::u16string& page) {
  CoverageChecker checker(page);
  EXPECT_TRUE(ScanPage(page, checker));
  EXPECT_EQ(checker.Position(), page.size()) << EncodeUtf8(page);
}

}  // namespace

TEST(ScannerTest, ReportsEachKindOfItemWithItsOffsets) {
  // Directives of every kind, reported whole.
  EXPECT_EQ(Scan(u"a<!-- c -->b<% x %><?php y ?><!DOCTYPE html><![CDATA[<p>]]>"),
            (Items{"text 0 [a]", "dir 1 [<!-- c -->]", "text 11 [b]", "dir 12 [<% x %>]", "dir 19 [<?php y ?>]",
                   "dir 29 [<!DOCTYPE html>]", "dir 44 [<![CDATA[<p>]]>]"}));
  // Attributes quoted both ways, unquoted, valueless, spaced around "=".
  EXPECT_EQ(Scan(u"<p a=\"1\" b='2' c=3 d e = \"5\">t</p>"),
            (Items{"open 0 [p]", "attr [a] [1]", "attr [b] [2]", "attr [c] [3]", "attr [d] []", "attr [e] [5]",
                   "end 29 []", "text 29 [t]", "close 30 [p]", "closeEnd 34"}));
  // The closing text: what stands between the last attribute (or the name)
  // and the ">".
  EXPECT_EQ(Scan(u"<br><br/><br /><p a=\"1\" /><p a=\"1\"/><p a >"),
            (Items{"open 0 [br]", "end 4 []", "open 4 [br]", "end 9 [/]", "open 9 [br]", "end 15 [ /]",
                   "open 15 [p]", "attr [a] [1]", "end 26 [ /]", "open 26 [p]", "attr [a] [1]", "end 36 [/]",
                   "open 36 [p]", "attr [a] []", "end 42 [ ]"}));
  // "<!-->" is a whole comment; a close tag may carry white space.
  EXPECT_EQ(Scan(u"<!-->x</p\n>"), (Items{"dir 0 [<!-->]", "text 5 [x]", "close 6 [p]", "closeEnd 11"}));
}

TEST(ScannerTest, LessThanSignsThatStartNoMarkupAreText) {
  EXPECT_EQ(Scan(u"a < b <= c </ d <1> <"), (Items{"text 0 [a < b <= c </ d <1> <]"}));
  EXPECT_EQ(Scan(u"x<</p>"), (Items{"text 0 [x<]", "close 2 [p]", "closeEnd 6"}));
}

TEST(ScannerTest, QuotesShieldGreaterThanSigns) {
  EXPECT_EQ(Scan(u"<a title=\"x>y\" alt='p\"q>'>z"),
            (Items{"open 0 [a]", "attr [title] [x>y]", "attr [alt] [p\"q>]", "end 26 []", "text 26 [z]"}));
  // Outside a tag a ">" is plain text; an unquoted value ends at ">".
  EXPECT_EQ(Scan(u"<p a=1>b>"), (Items{"open 0 [p]", "attr [a] [1]", "end 7 []", "text 7 [b>]"}));
  // A stray slash between attributes is passed over.
  EXPECT_EQ(Scan(u"<a / b=x/>"), (Items{"open 0 [a]", "attr [b] [x/]", "end 10 []"}));
}

TEST(ScannerTest, ServerCodeInsideATagBelongsToTheTag) {
  // In a quoted value, quotes and ">" inside the server code do not end it.
  EXPECT_EQ(Scan(u"<a href=\"<?php echo \"x>y\" ?>\">t"),
            (Items{"open 0 [a]", "attr [href] [<?php echo \"x>y\" ?>]", "end 30 []", "text 30 [t]"}));
  // Standing where an attribute could: an attribute named by the whole block.
  EXPECT_EQ(Scan(u"<input <?php if ($c > 1) echo 'checked'; ?>>"),
            (Items{"open 0 [input]", "attr [<?php if ($c > 1) echo 'checked'; ?>] []", "end 44 []"}));
  // Right after the name, and inside attribute names and unquoted values.
  EXPECT_EQ(Scan(u"<td<% if x %> class=\"y\"<% end %>>"),
            (Items{"open 0 [td]", "attr [<% if x %>] []", "attr [class] [y]", "attr [<% end %>] []", "end 33 []"}));
  EXPECT_EQ(Scan(u"<p data-<%= k %>=\"v\" href=<?= $a ? 'b' : 'c' ?>>"),
            (Items{"open 0 [p]", "attr [data-<%= k %>] [v]", "attr [href] [<?= $a ? 'b' : 'c' ?>]", "end 48 []"}));
  // A close tag with server code before its ">".
  EXPECT_EQ(Scan(u"</p <% x > y %>>"), (Items{"close 0 [p]", "closeEnd 16"}));
}

TEST(ScannerTest, ScriptAndStyleContentIsRawText) {
  EXPECT_EQ(Scan(u"<script>if (a<b) x('<p>');</script>"),
            (Items{"open 0 [script]", "end 8 []", "text 8 [if (a<b) x('<p>');]", "close 26 [script]",
                   "closeEnd 35"}));
  // Any letter case; a longer name does not close; nor does a close tag
  // written inside server code.
  EXPECT_EQ(Scan(u"<STYLE>a</styles><? '</style>' ?></Style >b"),
            (Items{"open 0 [STYLE]", "end 7 []", "text 7 [a</styles><? '</style>' ?>]", "close 33 [Style]",
                   "closeEnd 42", "text 42 [b]"}));
  // A script tag that closes itself has no content.
  EXPECT_EQ(Scan(u"<script src=\"a\"/><b>"),
            (Items{"open 0 [script]", "attr [src] [a]", "end 17 [/]", "open 17 [b]", "end 20 []"}));
}

TEST(ScannerTest, UnterminatedConstructsAtTheEnd) {
  // Directives run to the end of the page.
  EXPECT_EQ(Scan(u"a<!-- b"), (Items{"text 0 [a]", "cut dir 1", "dir 1 [<!-- b]"}));
  EXPECT_EQ(Scan(u"<?php echo 1;"), (Items{"cut dir 0", "dir 0 [<?php echo 1;]"}));
  EXPECT_EQ(Scan(u"<%"), (Items{"cut dir 0", "dir 0 [<%]"}));
  EXPECT_EQ(Scan(u"<!"), (Items{"cut dir 0", "dir 0 [<!]"}));
  EXPECT_EQ(Scan(u"<%>"), (Items{"cut dir 0", "dir 0 [<%>]"}));
  EXPECT_EQ(Scan(u"<!DOCTYPE <? ?>"), (Items{"cut dir 0", "dir 0 [<!DOCTYPE <? ?>]"}));
  // Tags without their ">" are text, from their "<" to the end.
  EXPECT_EQ(Scan(u"x<p class=\"a>b"), (Items{"cut open 1", "text 0 [x<p class=\"a>b]"}));
  EXPECT_EQ(Scan(u"<p>y<p a=\"<% \">"), (Items{"open 0 [p]", "end 3 []", "cut open 4", "text 3 [y<p a=\"<% \">]"}));
  EXPECT_EQ(Scan(u"<b></b"), (Items{"open 0 [b]", "end 3 []", "cut close 3", "text 3 [</b]"}));
  EXPECT_EQ(Scan(u"<p a="), (Items{"cut open 0", "text 0 [<p a=]"}));
  // Raw content without its whole close tag: the element is no element.
  EXPECT_EQ(Scan(u"<i><script>a<b>"), (Items{"open 0 [i]", "end 3 []", "cut raw 3", "text 3 [<script>a<b>]"}));
  EXPECT_EQ(Scan(u"<script>a</script"), (Items{"cut raw 0", "text 0 [<script>a</script]"}));
  EXPECT_EQ(Scan(u""), (Items{}));
}

TEST(ScannerTest, OffsetsCountUtf16CodeUnits) {
  // é is one unit, the emoji two (a surrogate pair), in text and in values.
  EXPECT_EQ(Scan(u"é<p title=\"😀\">ü 😀</p>"),
            (Items{"text 0 [é]", "open 1 [p]", "attr [title] [😀]", "end 15 []", "text 15 [ü 😀]", "close 19 [p]",
                   "closeEnd 23"}));
  // A name runs over non-ASCII units.
  EXPECT_EQ(Scan(u"<x:größe a>"), (Items{"open 0 [x:größe]", "attr [a] []", "end 11 []"}));
}

TEST(ScannerTest, ASinkThatRefusesStopsTheScan) {
  class StopAtSecond : public Recorder {
   public:
    bool Attribute(std::u16string_view name, std::u16string_view value) override {
      Recorder::Attribute(name, value);
      return items.size() < 3;
    }
  } sink;
  EXPECT_FALSE(ScanPage(u"<p a b c>t", sink));
  EXPECT_EQ(sink.items, (Items{"open 0 [p]", "attr [a] []", "attr [b] []"}));
}

TEST(ScannerTest, RandomPagesAreCoveredWholeAndInOrder) {
  static const char16_t* const kPieces[] = {
      u"<", u">", u"\"", u"'", u"=", u"/", u"!", u"-", u"%", u"?", u" ", u"\n", u"a", u"p", u"é", u"😀",
      u"<p", u"</p>", u"<script>", u"</script>", u"<!--", u"-->", u"<%", u"%>", u"<?", u"?>", u"<a href=",
      u"<style", u"</", u"<![CDATA[", u"]]>"};
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<size_t> piece(0, std::size(kPieces) - 1);
  std::uniform_int_distribution<int> length(0, 40);
  for (int round = 0; round < 3000; ++round) {
    std::u16string page;
    for (int n = length(rng); n > 0; --n) page += kPieces[piece(rng)];
    ExpectCovered(page);
    if (HasFailure()) break;
  }
}

TEST(ScannerTest, HostilePagesScanInLinearTime) {
  struct Case {
    const char* label;
    std::u16string unit;
  } cases[] = {
      {"unclosed tags with open quotes", u"<a title=\""},
      {"unclosed comments", u"<!--"},
      {"unclosed server blocks", u"<?"},
      {"unclosed scripts", u"<script>"},
      {"less-than signs", u"<"},
      {"close tags without end", u"</a "},
      {"nested tags", u"<div><p a=1>"},
      {"server code in values", u"<a b=\"<%x%>\" "},
  };
  for (const Case& c : cases) {
    std::u16string page;
    for (int i = 0; i < 100000; ++i) page += c.unit;
    auto begin = std::chrono::steady_clock::now();
    ExpectCovered(page);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LT(seconds, 2.0) << c.label;
  }
}
