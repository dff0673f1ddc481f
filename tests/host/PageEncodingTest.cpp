// Pages in their own encodings, through the command: how each page's
// encoding is found, and that a server which hands the labelled page back
// unchanged gives back the page byte for byte, byte order mark and all.
#include "PageEncoding.h"

#include "CommandFolder.h"
#include "Encoding.h"
#include "Profile.h"
#include "Utf8.h"

using namespace qzhost;

namespace {

struct Page {
  std::string file;  // its name, whose extension picks the profile
  std::string bytes;
};

// The page holding text, written in the encoding, after mark.
Page Make(const std::string& file, const std::string& encoding, const std::u16string& text,
          const std::string& mark = "") {
  return {file, mark + EncodeText(text, encoding)};
}

class PageEncodingTest : public CommandFolder {
 protected:
  // Translates the page with a server that hands back what it gets (kept in
  // the file "received"), expects the page back byte for byte, and returns
  // what the command said.
  std::string RoundTrip(const Page& page) {
    Write(page.file, page.bytes);
    ServerRun run = Command({"--server", "tee " + Path("received"), "-o", Path("merged"), Path(page.file)});
    EXPECT_EQ(run.exitStatus, 0) << page.file << ": " << run.errors;
    EXPECT_TRUE(Read("merged") == page.bytes) << page.file << " came back otherwise";
    return run.errors;
  }
};

}  // namespace

TEST_F(PageEncodingTest, ByteOrderMarksAndUtf8ComeBackAsTheyWere) {
  const std::u16string text = u"<p><?= 1 ?> café 日本 😀</p>\n";
  struct Case {
    std::string encoding, mark;
  } cases[] = {
      {"UTF-8", ""},
      {"UTF-8", "\xEF\xBB\xBF"},
      {"UTF-16LE", "\xFF\xFE"},
      {"UTF-16BE", "\xFE\xFF"},
  };
  for (const Case& c : cases) {
    Page page = Make("page.php", c.encoding, text, c.mark);
    EXPECT_EQ(RoundTrip(page), "") << c.encoding;
    // The server gets the labelled page in the page's encoding, mark first.
    std::string received = Read("received");
    EXPECT_TRUE(received.starts_with(c.mark + EncodeText(u"<p><!--QZVX 0 --><?= 1 ?>", c.encoding)))
        << c.encoding << (c.mark.empty() ? "" : " with its mark");
  }
  // UTF-16 named without its order and with no mark is big-endian, and
  // gets no mark it did not have.
  Write("page.php", EncodeText(text, "UTF-16BE"));
  EXPECT_EQ(Command({"--encoding", "UTF-16", "--server", "cat", Path("page.php")}).output, Read("page.php"));
  Write("page.php", std::string("\xFF\xFE\0\0<\0\0\0", 8));
  ServerRun refused = Command({"--server", "cat", Path("page.php")});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_TRUE(Has(refused.errors, "begins with a UTF-32LE byte order mark; UTF-32 pages are not supported"))
      << refused.errors;
}

TEST_F(PageEncodingTest, EachDeclarationIsReadInEachEncoding) {
  struct Encoding {
    std::string name, codePage;
    std::u16string text;
  } encodings[] = {
      {"windows-1252", "1252", u"café € naïve"},
      {"GB18030", "54936", u"欢迎访问 € 𠀀"},
      {"Shift_JIS", "932", u"このページ ①"},
  };
  struct Way {
    std::string file;
    std::string (*declare)(const Encoding&);
  } ways[] = {
      {"meta.php", [](const Encoding& e) { return "<meta charset=\"" + e.name + "\">"; }},
      {"equiv.php",
       [](const Encoding& e) {
         return "<META HTTP-EQUIV='content-type' CONTENT='text/html; charset=" + e.name + "'>";
       }},
      {"xml.erb", [](const Encoding& e) { return "<?xml version=\"1.0\" encoding=\"" + e.name + "\"?>"; }},
      {"response.aspx",
       [](const Encoding& e) { return "<%@ Page Language=\"C#\" ResponseEncoding=\"" + e.name + "\" %>"; }},
      {"codepage.aspx", [](const Encoding& e) { return "<%@ Page CodePage=\"" + e.codePage + "\" %>"; }},
      {"magic.erb", [](const Encoding& e) { return "<%# -*- coding: " + e.name + " -*- %>"; }},
      {"declare.php", [](const Encoding& e) { return "<?php declare(encoding='" + e.name + "'); ?>"; }},
  };
  for (const Encoding& e : encodings) {
    for (const Way& way : ways) {
      std::string declaration = way.declare(e);
      std::u16string block = way.file.ends_with(".php") ? u"<?= 1 ?>" : u"<%= 1 %>";
      std::u16string text = std::u16string(declaration.begin(), declaration.end()) + u"\n<p>" + block + u" " +
                            e.text + u"</p>\n";
      Page page = Make(way.file, e.name, text);
      EXPECT_EQ(RoundTrip(page), "") << declaration;
    }
  }
}

TEST_F(PageEncodingTest, AnUndeclaredLegacyPageIsGuessedWithAWarning) {
  std::u16string text = u"<p><?= $today ?></p>\n";
  for (int i = 0; i < 8; ++i)
    text += u"<p>このページはサーバーで作られます。今日は良い天気です。</p>\n";
  std::string said = RoundTrip(Make("page.php", "Shift_JIS", text));
  EXPECT_TRUE(Has(said, "warning: " + Path("page.php") +
                            ": the page declares no encoding and is not valid UTF-8; it was read as Shift_JIS, a "
                            "guess: if that is wrong, give --encoding NAME"))
      << said;
}

// A charset that the page's own server code writes, as WordPress's
// templates do, is no statement of the page's encoding: it is passed over
// without a word (it used to be "the encoding <?php ... is unknown"), and
// the page is read as UTF-8 or as its next literal declaration says.
TEST_F(PageEncodingTest, ACharsetWrittenByServerCodeDeclaresNothing) {
  const std::u16string head =
      u"<meta http-equiv=\"Content-Type\" content=\"<?php bloginfo('html_type'); ?>; charset=<?php "
      u"bloginfo('charset'); ?>\" />\n<meta charset=\"<?php bloginfo( 'charset' ); ?>\" />\n";
  EXPECT_EQ(RoundTrip(Make("utf8.php", "UTF-8", head + u"<p><?= 1 ?> café</p>\n")), "");
  EXPECT_EQ(RoundTrip(Make("latin.php", "windows-1252",
                           head + u"<meta charset=\"ISO-8859-1\">\n<p><?= 1 ?> café</p>\n")),
            "");
}

TEST_F(PageEncodingTest, CharactersTheEncodingCannotWriteBack) {
  // Shift_JIS reads 87 90 as U+2252 and writes that as 81 E0.
  Write("nec.php", "<meta charset=\"Shift_JIS\">\n<p><?= 1 ?>\x87\x90</p>\n");
  ServerRun nec = Command({"--server", "cat", Path("nec.php")});
  EXPECT_EQ(nec.output, "<meta charset=\"Shift_JIS\">\n<p><?= 1 ?>\x81\xE0</p>\n");
  EXPECT_TRUE(Has(nec.errors, "warning: " + Path("nec.php") + ": line 2 (byte offset 38): Shift_JIS writes the "
                                                                "character there otherwise than the page has it"))
      << nec.errors;
  // EUC-JP reads 8E E0 as U+00A2 and cannot write it: a reference in text,
  // an error in server code.
  Write("text.php", "<meta charset=\"EUC-JP\">\n<p><?= 1 ?>\x8E\xE0</p>\n");
  ServerRun text = Command({"--server", "cat", Path("text.php")});
  EXPECT_EQ(text.exitStatus, 0);
  EXPECT_EQ(text.output, "<meta charset=\"EUC-JP\">\n<p><?= 1 ?>&#162;</p>\n");
  EXPECT_TRUE(Has(text.errors, "the page holds U+00A2, which EUC-JP reads but cannot write")) << text.errors;
  Write("code.php", "<meta charset=\"EUC-JP\">\n<p>\n<a title=\"<?= '\x8E\xE0' ?>\">1</a></p>\n");
  ServerRun code = Command({"--server", "cat", Path("code.php")});
  EXPECT_EQ(code.exitStatus, 1);
  EXPECT_TRUE(Has(code.errors, "page " + Path("code.php") +
                                   ": line 3 holds, in server code, a character that EUC-JP cannot write back"))
      << code.errors;
  EXPECT_EQ(code.output, "");
}

TEST_F(PageEncodingTest, PhpOutputOutsideWindows1252BecomesACharacterReference) {
  if (system("command -v php >/dev/null") != 0) GTEST_SKIP() << "php is not installed";
  // The code, in windows-1252, prints UTF-8; the merged page is written in
  // windows-1252 again, its code as the page has it.
  Write("page.php",
        "<meta charset=\"windows-1252\">\n<p><?php /* caf\xE9 */ echo \"\\u{E9}t\\u{E9} \\u{3A9}\"; ?></p>\n");
  ServerRun run = Command({"--server-encoding", "UTF-8", Path("page.php")});
  ASSERT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_TRUE(Has(run.output, "<qz:invisible><?php /* caf\xE9 */ echo") &&
              Has(run.output, "<font hilitecolor=\"Dyn Up-to-Date Color\">\xE9t\xE9 &#937;</font>"))
      << run.output;
}

// Pages and server outputs decoded as the command decodes them: what names
// the encoding, which mark is kept apart, and what is warned about or
// refused.
TEST(PageDecodingTest, TheOptionTheMarkAndTheDeclarationEachName) {
  struct Case {
    std::string bytes, option;
    ServerDeclaration server;
    std::string read;  // "NAME, MARK BYTES: TEXT; WARNINGS", or the error
  } cases[] = {
      {std::string("\xFF\xFEx\0", 4), "", ServerDeclaration::kNone, "UTF-16LE, 2: x; "},
      {std::string("\xFF\xFEx\0", 4), "UTF-16", ServerDeclaration::kNone, "UTF-16LE, 2: x; "},
      {std::string("\0x", 2), "UTF-16", ServerDeclaration::kNone, "UTF-16BE, 0: x; "},
      {"\xEF\xBB\xBFx", "utf8", ServerDeclaration::kNone, "UTF-8, 3: x; "},
      {"\xEF\xBB\xBFx", "windows-1252", ServerDeclaration::kNone, "windows-1252, 0: \u00EF\u00BB\u00BFx; "},
      {"<meta charset=utf-16>\xC3\xA9", "", ServerDeclaration::kNone, "UTF-8, 0: <meta charset=utf-16>\u00E9; "},
      {"<meta charset=utf-32>", "", ServerDeclaration::kNone, "UTF-8, 0: <meta charset=utf-32>; "},
      {"<meta charset=no-such>\xC3\xA9", "", ServerDeclaration::kNone,
       "UTF-8, 0: <meta charset=no-such>\u00E9; the encoding no-such (<meta charset> on line 1) is unknown, so it "
       "is passed over"},
      {"<?php declare(encoding='ISO-8859-7'); ?>\xE1", "", ServerDeclaration::kPhpDeclare,
       "ISO-8859-7, 0: <?php declare(encoding='ISO-8859-7'); ?>\u03B1; "},
      {"<meta charset=Shift_JIS>\x87\x90\n\x81\x20", "", ServerDeclaration::kNone,
       "page is not valid Shift_JIS (declared by <meta charset> on line 1): bad byte sequence at byte offset 27 "
       "(line 2); give --encoding NAME if it is in another encoding"},
      {std::string("\0\0\xFE\xFF", 4), "", ServerDeclaration::kNone,
       "page begins with a UTF-32BE byte order mark; UTF-32 pages are not supported: save the page as UTF-8 or UTF-16"},
      {std::string("a\0", 2), "", ServerDeclaration::kNone,
       "page holds a NUL character at byte offset 1 (line 1), which a page cannot hold (a page in UTF-16 without a "
       "byte order mark needs --encoding)"},
  };
  for (const Case& c : cases) {
    std::u16string text;
    PageEncoding encoding;
    std::vector<std::string> warnings;
    std::string error, read;
    if (DecodePage(c.bytes, c.option, c.server, &text, &encoding, &warnings, &error)) {
      read = encoding.name + ", " + std::to_string(encoding.mark.size()) + ": " + EncodeUtf8(text) + "; ";
      for (const std::string& w : warnings) read += w;
    } else {
      read = "page " + error;
    }
    EXPECT_EQ(read, c.read);
  }
  // Outputs in a mark of their own, or one they may not have.
  PageEncoding page{"windows-1252", "", EncodingSource::kDeclaration, "", {}};
  std::u16string text;
  std::string error;
  EXPECT_TRUE(DecodeOutput(std::string("\xFE\xFF\0x", 4), page, "", &text, &error) && text == u"x");
  EXPECT_FALSE(DecodeOutput(std::string("\xFF\xFE\0\0x\0\0\0", 8), page, "UTF-16LE", &text, &error));
  EXPECT_FALSE(DecodeOutput(std::string("\xFF\xFE\0\0", 4), page, "", &text, &error));
  EXPECT_EQ(error, "begins with a UTF-32LE byte order mark; UTF-32 is not supported");
}
