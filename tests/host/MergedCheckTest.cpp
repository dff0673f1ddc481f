// Server code cut by the translated-value attribute in a merged page: named
// with its tag's page line, and nothing said of blocks the attribute stays
// out of.
#include "MergedCheck.h"

#include <gtest/gtest.h>

using namespace qzhost;

namespace {

constexpr char16_t kAttr[] = u" qzTranslatedValue=\"hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";

std::u16string Cut(std::u16string before, std::u16string after) { return before + kAttr + after; }

}  // namespace

TEST(MergedCheckTest, NamesEveryBlockTheAttributeWasWrittenInto) {
  const std::u16string page =
      u"<p>a</p>\n<?php if (0) { ?><style<?= $t ?>>p{}</style><?php } ?>\n<td<%= c %>>x</td>\n";
  const std::u16string merged = u"<p>a</p>\n<qz:invisible><?php if (0) { ?></qz:invisible>" +
                                Cut(u"<style<?=", u" $t ?>>p{}</style>\n") + Cut(u"<td<%=", u" c %>>x</td>\n");
  std::vector<LabelWarning> warnings = CheckMergedCode(page, merged);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0].kind, Finding::kCodeCut);
  EXPECT_EQ(warnings[0].pageLine, 2u);
  EXPECT_NE(warnings[0].message.find("`<style<?=...`"), std::string::npos) << warnings[0].message;
  EXPECT_EQ(warnings[1].pageLine, 3u);
  EXPECT_NE(warnings[1].message.find("`<td<%=...`"), std::string::npos) << warnings[1].message;

  // A tag the page does not hold as written, and a block with no tag
  // before it: named without a line.
  warnings = CheckMergedCode(page, Cut(u"<b<?=", u" 1 ?>>") + Cut(u"<?=", u" ?>"));
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0].pageLine, 0u);
  EXPECT_NE(warnings[1].message.find("`<?=...`"), std::string::npos) << warnings[1].message;
}

TEST(MergedCheckTest, SaysNothingWhereTheAttributeStaysOutsideServerCode) {
  const std::u16string cases[] = {
      // A space before the code: the attribute goes after the name.
      Cut(u"<style", u" <?= $t ?>>p{}</style>"),
      // Raw code in a lock's invisible part, the attribute in a later tag.
      u"<qz:invisible><?php } ?></qz:invisible>" + Cut(u"<b", u">x</b>"),
      // A block that the page leaves open at its end.
      u"<?php echo 1;",
      Cut(u"<p", u">") + u"a <? b",
      u"",
  };
  for (const std::u16string& merged : cases)
    EXPECT_TRUE(CheckMergedCode(u"", merged).empty()) << std::string(merged.begin(), merged.end());
}
