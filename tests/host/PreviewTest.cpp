// The preview without a browser: how locks are matched to pieces, what the
// file holds once every text in it is unescaped, and the pieces read off the
// labels (the command's --preview option is QzTranslateTest's). What the
// preview looks like and does in a browser is PreviewBrowserTest's.
#include "Preview.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <cstring>

#include "PreviewPieces.h"

using namespace qzhost;

namespace {

std::string Lock(const std::string& encoded, const std::string& output = "x") {
  return "<qz:lock code=\"" + encoded + "\">" + output + "</qz:lock>";
}

PreviewPiece Piece(int number, int line, const std::string& code) { return {number, line, code, true}; }

// The pieces each lock went to, by number ("3", "3+" for a repeat after
// piece 3, "+" for a repeat before any, "?" for unknown code).
std::vector<std::string> Owners(const PreviewInput& input) {
  PreviewLayout layout = LayOutPreview(input);
  std::vector<std::string> owners;
  for (const PreviewLock& lock : layout.locks) {
    const PreviewEntry& entry = layout.entries[static_cast<size_t>(lock.entry)];
    std::string number = entry.piece >= 0 ? std::to_string(input.pieces[static_cast<size_t>(entry.piece)].number) : "";
    if (entry.kind == PreviewEntry::kRepeat) number += "+";
    if (entry.kind == PreviewEntry::kUnknown) number = "?";
    owners.push_back(number);
  }
  return owners;
}

std::string Unescaped(std::string text) {
  static const std::pair<const char*, const char*> kEntities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&#39;", "'"}, {"&amp;", "&"}};
  for (auto [entity, c] : kEntities)
    for (size_t at = 0; (at = text.find(entity, at)) != std::string::npos; ++at) text.replace(at, strlen(entity), c);
  return text;
}

// The text between the first `open` at or after `from` and the `close` after it.
std::string Between(const std::string& text, const std::string& open, const std::string& close, size_t from = 0) {
  size_t start = text.find(open, from);
  if (start == std::string::npos) return "(no " + open + ")";
  start += open.size();
  return text.substr(start, text.find(close, start) - start);
}

size_t Count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

}  // namespace

TEST(PreviewLayoutTest, LocksGoToPiecesInPageOrder) {
  PreviewInput input;
  input.pieces = {Piece(1, 2, "<?= $i ?>"), Piece(2, 3, "<?php foreach ($a as $i): ?>"), Piece(3, 5, "<?= $i ?>"),
                  Piece(4, 6, "<?php endforeach; ?>"), Piece(5, 9, "<?= \"a\r\nb\" ?>")};
  const std::string i = "%3C?=%20$i%20?%3E", loop = "%3C?php%20foreach%20($a%20as%20$i):%20?%3E";
  const std::string end = "%3C?php%20endforeach;%20?%3E", crlf = "%3C?=%20%22a%0Ab%22%20?%3E";

  // The same code twice goes to the two pieces in turn; a loop's later
  // passes (empty code) follow the piece before them.
  input.mergedPage = Lock(i) + Lock(loop) + Lock(i) + Lock("") + Lock(end) + Lock(crlf);
  EXPECT_EQ(Owners(input), (std::vector<std::string>{"1", "2", "3", "3+", "4", "5"}));

  // Code that comes back after its piece goes to the nearest one before;
  // code of no piece gets an entry of its own; empty code first follows none.
  input.mergedPage = Lock("") + Lock(i) + Lock(end) + Lock(i) + Lock("%3C?=%20$j%20?%3E");
  EXPECT_EQ(Owners(input), (std::vector<std::string>{"+", "1", "4", "3", "?"}));

  // Entries: pieces in page order, each lock-only entry right after the piece
  // it follows; every piece has one, locked or not.
  PreviewLayout layout = LayOutPreview(input);
  std::vector<std::string> order;
  for (const PreviewEntry& entry : layout.entries)
    order.push_back(entry.kind == PreviewEntry::kPiece ? std::to_string(entry.piece + 1)
                                                       : entry.kind == PreviewEntry::kRepeat ? "+" : "?");
  EXPECT_EQ(order, (std::vector<std::string>{"+", "1", "2", "3", "?", "4", "5"}));
  EXPECT_EQ(layout.entries[2].locks.size(), 0u);
  // The library writes a lone CR, also one at the end, as LF too.
  PreviewInput lineEnds;
  lineEnds.pieces = {Piece(1, 1, "<? a\rb\r\nc ?>"), Piece(2, 3, "<? d\r")};
  lineEnds.mergedPage = Lock("%3C?%20d%0A") + Lock("%3C?%20a%0Ab%0Ac%20?%3E");
  EXPECT_EQ(Owners(lineEnds), (std::vector<std::string>{"2", "1"}));
  EXPECT_EQ(layout.entries[4].code, "<?= $j ?>");
  for (size_t k = 0; k < layout.locks.size(); ++k) {
    const std::vector<int>& back = layout.entries[static_cast<size_t>(layout.locks[k].entry)].locks;
    EXPECT_NE(std::find(back.begin(), back.end(), static_cast<int>(k)), back.end()) << "lock " << k;
  }
}

TEST(PreviewLayoutTest, DecodesEachPercentPairOnly) {
  EXPECT_EQ(DecodeLockCode("%3C?=%20$a%20?%3E"), "<?= $a ?>");
  EXPECT_EQ(DecodeLockCode("100%"), "100%");
  EXPECT_EQ(DecodeLockCode("%2"), "%2");
  EXPECT_EQ(DecodeLockCode("%zz%41"), "%zzA");
  EXPECT_EQ(DecodeLockCode("\xC3\xBC%0a%3c%3E%3"), "\xC3\xBC\n<>%3");
  // The characters just before and after the digits and the two runs of
  // letters are no hexadecimal digits.
  EXPECT_EQ(DecodeLockCode("%/0%:0%@1%G1%`0%g1%0/%0:%0@%0G%0`%0g"), "%/0%:0%@1%G1%`0%g1%0/%0:%0@%0G%0`%0g");
}

// Texts that would end the element or attribute they stand in, if they were
// written as they are.
TEST(PreviewRenderTest, EveryTextComesBackWhole) {
  const std::string hostile = "\"'></iframe></code></pre></script><script>alert(1)</script><!-- & &amp; \xE2\x80\xA8";
  PreviewInput input;
  input.title = "t" + hostile;
  input.mergedPage = "<p class=\"a\">" + hostile + Lock("%3C?=%20$a%20?%3E%22%3C/script%3E") + Lock("") +
                     Lock("\\\t\xE2\x80\xA8\xE2\x80\xA9") + Lock("\xE2\x80\xA0<&>\x7F\xE2\x80") + "</p>";
  input.pieces = {Piece(1, 4, "<?= $a ?>\"</script>"), Piece(2, 7, hostile)};
  input.warnings = {{3, hostile}, {0, "none"}};
  std::string html = RenderPreview(input);

  EXPECT_EQ(Unescaped(Between(html, "srcdoc=\"", "\"")), input.mergedPage);
  EXPECT_EQ(Unescaped(Between(html, "<title>", "</title>")), "Preview of " + input.title);
  size_t second = html.find("data-label=\"2\"");
  EXPECT_EQ(Unescaped(Between(html, "<code>", "</code>", second)), hostile);
  EXPECT_EQ(Unescaped(Between(html, "<span class=\"qz-line\">line 3</span> ", "</li>")), hostile);

  // Only the lock data and the preview's own script are scripts, and the
  // data holds nothing that could end its element.
  EXPECT_EQ(Count(html, "<script"), 2u);
  EXPECT_EQ(Count(html, "</script"), 2u);
  std::string data = Between(html, "id=\"qz-locks\">", "</script>");
  EXPECT_EQ(data.find_first_of("<>&"), std::string::npos) << data;
  EXPECT_NE(data.find("%3C/script%3E"), std::string::npos) << data;
  EXPECT_NE(data.find("\"\\\\\\u0009\\u2028\\u2029\""), std::string::npos) << data;
  EXPECT_NE(data.find("\"\xE2\x80\xA0\\u003c\\u0026\\u003e\x7F\xE2\x80\""), std::string::npos)
      << "other characters from E2 80 stay as they are: " << data;
  EXPECT_EQ(Count(html, "qz-entry qz-repeat") + Count(html, "qz-entry qz-unknown"), 3u) << "a repeat and two unknown codes";
  EXPECT_NE(html.find("<li class=\"qz-warning\" data-line=\"0\">none</li>"), std::string::npos);

  // The content policy fetches nothing and runs only the script with its nonce.
  std::string policy = Between(html, "Content-Security-Policy\" content=\"", "\"");
  EXPECT_NE(policy.find("default-src 'none'"), std::string::npos) << policy;
  EXPECT_NE(policy.find("script-src 'nonce-" + Between(html, "<script nonce=\"", "\"") + "'"), std::string::npos);
  EXPECT_EQ(Between(html, "sandbox=\"", "\""), "allow-same-origin");
}

TEST(PreviewPiecesTest, PiecesAndWarningsOfATranslation) {
  LabelReport report;
  report.pieces.resize(2);
  report.pieces[1].openLabel = 2, report.pieces[1].line = 5, report.pieces[1].code = u"<?= 1 ?>";
  report.warnings.push_back({Finding::kCodeMissing, 5, 0, "lost"});
  PreviewInput input = PreviewOfTranslation("page.php", report, {{Finding::kOpenAtEnd, 0, 0, "open"}}, u"é");
  EXPECT_EQ(input.title + input.mergedPage + input.pieces[1].code, "page.php\xC3\xA9<?= 1 ?>");
  EXPECT_EQ(input.pieces[1].number * 10 + input.pieces[1].line, 25);
  EXPECT_EQ(input.warnings.size(), 2u);
  EXPECT_EQ(input.warnings[0].message + input.warnings[1].message, "openlost");
}
