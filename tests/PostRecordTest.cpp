// Post-pass recording, driven through the scanner callbacks as the host
// reports the server's output: label comments, tags, the title and the
// encoded attributes of labelled tags.
#include <string>

#include "FakeHost.h"
#include "NativeScan.h"
#include "Session.h"

namespace {

class PostRecordTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(host.Call("initialize", {}).ok, 1);
    ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  }
  // Calls a scanner callback and expects it to succeed with true.
  void Scan(const std::string& name, std::vector<Value> args) {
    auto r = host.Call(name, std::move(args));
    ASSERT_EQ(r.ok, 1) << name;
    ASSERT_EQ(r.result, qzhost::kTrue) << name;
  }
  void OpenTag(const std::u16string& name, int offset) { Scan("openTagBegin", {host.Str(name), host.Int(offset)}); }
  void Attr(const std::u16string& name, const std::u16string& value) {
    Scan("attribute", {host.Str(name), host.Str(value)});
  }
  void OpenEnd(int end, const std::u16string& closing = u"") { Scan("openTagEnd", {host.Int(end), host.Str(closing)}); }
  void CloseTag(const std::u16string& name, int offset, int end) {
    Scan("closeTagBegin", {host.Str(name), host.Int(offset)});
    Scan("closeTagEnd", {host.Int(end)});
  }
  std::u16string EncodedRecords() { return std::u16string(gEncodedAttrs.pData, gEncodedAttrs.nSize); }
};

TEST_F(PostRecordTest, LabelCommentsAreRecognisedExactly) {
  Scan("directive", {host.Str(u"<!--QZVX 12 -->"), host.Int(40)});
  Scan("directive", {host.Str(u"<!--qzvx 13 -->"), host.Int(60)});
  Scan("directive", {host.Str(u"<!--QZVX -->"), host.Int(80)});
  Scan("directive", {host.Str(u"<!-- plain -->"), host.Int(90)});
  EXPECT_EQ(Items(gFromServerOffsetArray), Ints{40});
  EXPECT_EQ(Items(gFromServerLengthArray), Ints{15});
  EXPECT_EQ(Items(gLabelArray), Ints{12});
}

TEST_F(PostRecordTest, EncodedAttributeValuesAreQuotedOnlyForBlanks) {
  OpenTag(u"img", 10);
  Attr(u"before", u"x");  // before the label: not recorded
  Attr(u"qzvx", u"0");
  Attr(u"alt", u"a b");
  Attr(u"tab", u"a\tb");
  Attr(u"QZVX", u"1");  // another case: an ordinary attribute
  Attr(u"", u"v");      // empty name: the value stands for both
  OpenEnd(60, u" /");
  EXPECT_EQ(EncodedRecords(),
            std::u16string(u"alt=%22a%20b%22 tab=a%09b QZVX=1 v=v \0", 38));
  EXPECT_EQ(Items(gAttrFromServerLengthArray), Ints{60 - 14 - 1 - 2});

  // A tag without a label attribute adds only its boundaries.
  OpenTag(u"b", 70);
  Attr(u"x", u"y");
  OpenEnd(80);
  EXPECT_EQ(gAttrLabelArray.nSize, 1);
  EXPECT_EQ(Items(gFromServerTagEndArray), (Ints{60, 80}));
}

TEST_F(PostRecordTest, TitleIndexesPointAtTheLastTitle) {
  for (int k = 0; k < 2; ++k) {
    int base = k * 100;
    OpenTag(k ? u"TITLE" : u"title", base);
    OpenEnd(base + 7);
    CloseTag(u"Title", base + 20, base + 28);
  }
  OpenTag(u"titles", 300);
  OpenEnd(308);
  EXPECT_EQ(gFromServerTitleInsideStart, 2) << "end entry of the second title open tag";
  EXPECT_EQ(gFromServerTitleInsideEnd, 3) << "begin entry of the second title close tag";
}

}  // namespace
