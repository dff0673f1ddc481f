// Encoding declarations read from undecoded page bytes: each kind the
// profiles' servers honour, XML declarations and <meta>, with the names they
// are read as, what declares them on which line, and the near misses that
// declare nothing.
#include "EncodingDeclaration.h"

#include <gtest/gtest.h>

using namespace qzhost;

TEST(EncodingDeclarationTest, ReadsEachKindAndPassesOverNearMisses) {
  using enum ServerDeclaration;
  struct Case {
    ServerDeclaration server;
    const char* bytes;
    const char* found;  // "NAME|WHAT", or "" for nothing declared
  } cases[] = {
      {kNone, "<meta\tcharset=\"Shift_JIS\">", "Shift_JIS|<meta charset> on line 1"},
      {kNone, "<p>\r\n<META\fCharSet = 'gbk' / >", "GB18030|<meta charset> on line 2"},
      {kNone, "<meta charset=utf-8>", "utf-8|<meta charset> on line 1"},
      {kNone, "<meta name=x charset=EUC-KR", "windows-949|<meta charset> on line 1"},
      {kNone, "<meta charset=\"koi8-r", "koi8-r|<meta charset> on line 1"},
      {kNone, "<metadata charset=x><meta/charset=latin1>", "windows-1252|<meta charset> on line 1"},
      {kNone, "<meta = > charset=x><meta charset=><meta charset", ""},
      {kNone, "<meta http-equiv=refresh content='0; charset=x'>", ""},
      {kNone, "<meta http-equiv=Content-Type content=\"text/html; CHARSET = 'ISO-8859-2';\">",
       "ISO-8859-2|<meta http-equiv=\"Content-Type\"> on line 1"},
      {kNone, "<meta http-equiv=content-type content=\"text/html\"><meta http-equiv=content-type content=charset>", ""},
      {kNone, "<meta http-equiv=content-type content=\"charset x\"><meta charset=big5>",
       "big5|<meta charset> on line 1"},
      {kNone, "<meta http-equiv=content-type content='charset=\"utf-16\"'>",
       "utf-16|<meta http-equiv=\"Content-Type\"> on line 1"},
      {kNone, "<meta http-equiv=content-type content='charset='><meta", ""},
      {kNone, "<?xml version='1.0' encoding=\"EUC-JP\"?><meta charset=x>", "EUC-JP|the XML declaration on line 1"},
      {kNone, "<?xml?><?xmlx encoding=x?><?xml", ""},
      {kNone, "<?xml", ""},
      {kNone, "<?xml version=\"1.0\"?><meta charset=x>", "x|<meta charset> on line 1"},
      {kPhpDeclare, "<?php declare ( encoding = 'ISO-8859-15' ); ?>", "ISO-8859-15|declare(encoding) on line 1"},
      {kPhpDeclare, "<?php DECLARE(strict_types=1); declare; declare", ""},
      {kPhpDeclare, "<?php declare(encoding=", ""},
      {kErbMagicComment, "<%#-*-coding:windows-1251-*-%>", "windows-1251|the magic comment on line 1"},
      {kErbMagicComment, "<%# encoding: us-ascii", ""},
      {kErbMagicComment, "<%# encoding: us-ascii %>", "windows-1252|the magic comment on line 1"},
      {kErbMagicComment, "<%# plain %><meta charset=x>", "x|<meta charset> on line 1"},
      {kErbMagicComment, "\n<%# coding: x %>", ""},
      {kAspDirective, "<%@ Page Language=\"C#\" %>\n<%@ Page ResponseEncoding=\"gb2312\" %>",
       "GB18030|ResponseEncoding on line 2"},
      {kAspDirective, "<%@ CODEPAGE=65001 %>", "windows-65001|CodePage=65001 on line 1"},
      {kAspDirective, "<%@ Page CodePage=\"51932\" %>", "EUC-JP|CodePage=51932 on line 1"},
      {kAspDirective, "<%@ Page CodePage=20932 %>", "EUC-JP|CodePage=20932 on line 1"},
      {kAspDirective, "<%@ Page%><%@ CodePage=1252%>", "windows-1252|CodePage=1252 on line 1"},
      {kAspDirective, "<%@ Page CodePage=\"50221\" %>", "ISO-2022-JP|CodePage=50221 on line 1"},
      {kAspDirective, "<%@ Page CodePage=\"28595\" %>", "ISO-8859-5|CodePage=28595 on line 1"},
      {kAspDirective, "<%@ Page CodePage=\"x1\" %>", ""},
      {kAspDirective, "<%@ CodePage=123456 %>", ""},
      {kAspDirective, "<%@ CodePage", ""},
      {kAspDirective, "<%@ Page CodePage=\"\" %><meta charset=y>", "y|<meta charset> on line 1"},
      // A charset that server code writes, as WordPress's themes and
      // templates do, states nothing; a later literal one still counts.
      {kPhpDeclare, "<meta charset=\"<?php bloginfo( 'charset' ); ?>\" />", ""},
      {kNone,
       "<meta http-equiv=\"Content-Type\" content=\"<?php bloginfo('html_type'); ?>; charset=<?php "
       "bloginfo('charset'); ?>\" />\n<meta charset=<?= $c ?>>\n<meta charset=\"x<%= c %>\">\n<meta charset=koi8-r>",
       "koi8-r|<meta charset> on line 4"},
      {kNone, "<?xml version=\"1.0\" encoding=\"<?php echo $enc ?>\"?>", ""},
  };
  for (const Case& c : cases) {
    Declaration found;
    std::string got = FindDeclaredEncoding(c.bytes, c.server, &found) ? found.name + "|" + found.what : "";
    EXPECT_EQ(got, c.found) << c.bytes;
  }
  // Only the first 64 KiB are looked at.
  Declaration found;
  EXPECT_FALSE(FindDeclaredEncoding(std::string(kDeclarationWindow, ' ') + "<meta charset=x>", kNone, &found));
}
