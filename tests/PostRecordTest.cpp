// Post-pass recording, driven through the scanner callbacks as the host
// reports the server's output: label comments, tags, the title and the
// encoded attributes of labelled tags.
#include <string>

#include "FakeHost.h"
#include "FaultAllocator.h"
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

// Regression: when one array's growth failed while the 101st label comment
// was recorded, 102 offsets stood against 101 lengths and entry 100 was
// paired with comment 101's length. Each allocation of a post-pass scan that
// grows every array past its first block is failed in turn: every record
// (label comment; tag begin and end; labelled tag with its encoded
// attributes) is then there whole, or missing whole.
TEST_F(PostRecordTest, PostPassRecordsAreWholeWhicheverAllocationFails) {
  auto number = [](int k) { std::string s = std::to_string(k); return std::u16string(s.begin(), s.end()); };
  std::u16string output;
  for (int k = 0; k < 150; ++k)
    output += u"<!--QZVX " + number(2 * k) + u" --><p qzvx=\"" + number(k) + u"\" a=\"" + number(k) +
              u"\" b=\"x y\">t</p>";
  auto tagEnd = [&](int32_t begin) { return static_cast<int32_t>(output.find(u'>', begin) + 1); };
  for (long failAt = 1;; ++failAt) {
    SCOPED_TRACE(failAt);
    ReleaseLibraryState();
      FaultFailAt(failAt);
    ScanThroughNatives(host, output);
    const bool bFailed = FaultAttempts() >= failAt;
    FaultFailAt(0);
    const int32_t nComments = gFromServerOffsetArray.nSize;
    ASSERT_EQ(gFromServerLengthArray.nSize, nComments);
    ASSERT_EQ(gLabelArray.nSize, nComments);
    for (int32_t k = 0; k < nComments; ++k) {
      int32_t at = gFromServerOffsetArray.pData[k];
      ASSERT_EQ(output.compare(at, 9, u"<!--QZVX "), 0) << k;
      ASSERT_EQ(gFromServerLengthArray.pData[k], tagEnd(at) - at) << k;
      ASSERT_EQ(output.substr(at + 9, gFromServerLengthArray.pData[k] - 13), number(gLabelArray.pData[k])) << k;
    }
    const int32_t nTags = gFromServerTagBeginArray.nSize;
    ASSERT_EQ(gFromServerTagEndArray.nSize, nTags);
    for (int32_t k = 0; k < nTags; ++k)
      ASSERT_EQ(gFromServerTagEndArray.pData[k], tagEnd(gFromServerTagBeginArray.pData[k])) << k;
    const int32_t nLabelled = gAttrLabelArray.nSize;
    int nLost = 150 + 300 + 150 - (nComments + nTags + nLabelled);
    ASSERT_EQ(gAttrFromServerOffsetArray.nSize, nLabelled);
    ASSERT_EQ(gAttrFromServerLengthArray.nSize, nLabelled);
    std::u16string records(gEncodedAttrs.pData, gEncodedAttrs.nSize);
    size_t from = 0;
    for (int32_t k = 0; k < nLabelled; ++k) {
      int32_t label = gAttrLabelArray.pData[k];
      int32_t at = gAttrFromServerOffsetArray.pData[k];
      const std::u16string head = u"<p qzvx=\"" + number(label) + u"\" a=\"";
      ASSERT_EQ(output.compare(at - 2, head.size(), head), 0) << k;
      ASSERT_EQ(gAttrFromServerLengthArray.pData[k], tagEnd(at) - 1 - at) << k;
      size_t nul = records.find(u'\0', from);
      ASSERT_NE(nul, std::u16string::npos) << k;
      // An attribute whose entry could not be made is missing whole.
      const std::u16string a = u"a=" + number(label) + u" ", b = u"b=%22x%20y%22 ", record = records.substr(from, nul - from);
      nLost += record != a + b;
      ASSERT_TRUE(record == a + b || record == a || record == b) << k;
      from = nul + 1;
    }
    ASSERT_EQ(from, records.size()) << "one record per labelled tag";
    EXPECT_EQ(nLost, bFailed ? 1 : 0) << "the failed allocation loses one record or attribute, whole";
    if (!bFailed) break;
  }
}

}  // namespace
