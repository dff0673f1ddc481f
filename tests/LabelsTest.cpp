// Label sizing: the room endPreTranslate gives the labelled page.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Labels.h"
#include "char16.h"

namespace {

// Regression: the labelled page was sized for label numbers of up to 7
// digits, so from label 11 111 111 on the labels were written past its end.
// The sizing is checked at every digit boundary against the labels' real
// lengths; the page that needs them is MainTest's
// DISABLED_TwentyTwoMegabytePageOfDirectives.
TEST(LabelsTest, CoversEveryLabelNumberAtEachDigitBoundary) {
  struct Label {
    const char16_t* format;
    int64_t nFixed;  // units besides the number
  };
  const Label kComment{u"<!--QZVX %d -->", 13}, kAttr{u" qzvx=\"%d\" ", 9};
  // Units that the labels 0 .. n - 1 take, decade by decade.
  auto needed = [](const Label& label, int64_t n) {
    int64_t units = 0;
    for (int64_t lo = 0, hi = 10, digits = 1; lo < n; lo = hi, hi *= 10, ++digits)
      units += (std::min(n, hi) - lo) * (label.nFixed + digits);
    return units;
  };
  std::vector<int64_t> counts = {0, 1, 11111111, 11111112, INT32_MAX};
  for (int64_t p = 10; p <= 1000000000; p *= 10) counts.insert(counts.end(), {p, p + 1});
  for (int64_t n : counts) {
    SCOPED_TRACE(n);
    const int32_t count = static_cast<int32_t>(n);
    if (n > 0) {
      // The count of the last label, as the formatter writes it.
      char16_t text[32];
      for (const Label& label : {kComment, kAttr}) {
        char16_swprintf(text, 32, label.format, count - 1);
        ASSERT_EQ(needed(label, n) - needed(label, n - 1), static_cast<int64_t>(std::u16string(text).size()));
      }
    }
    EXPECT_GE(LabelledPageSize(7, count, 0), 7 + needed(kComment, n) + 1);
    EXPECT_GE(LabelledPageSize(7, 0, count), 7 + needed(kAttr, n) + 1);
    EXPECT_EQ(LabelledPageSize(7, count, count), LabelledPageSize(7, count, 0) + LabelledPageSize(0, 0, count) - 1);
    if (n <= 10000000) {
      EXPECT_EQ(LabelledPageSize(7, count, count), 7 + 36 * n + 1) << "ordinary pages keep their budget";
    }
  }
}

// Every directive of the server's output is read as a label comment: the
// lead exactly, white space, an optional sign, digits; numbers beyond the
// int range are held at its ends, never wrapped into a label of the page.
TEST(LabelsTest, ReadsLabelCommentsAsTheScannerDoes) {
  const std::pair<const char16_t*, int32_t> read[] = {
      {u"<!--QZVX 3 -->", 3},
      {u"<!--QZVX\t\n+12-->", 12},
      {u"<!--QZVX -4 -->", -4},
      {u"<!--QZVX 2147483647", INT32_MAX},
      {u"<!--QZVX 2147483648", INT32_MAX},
      {u"<!--QZVX -2147483648", INT32_MIN},
      {u"<!--QZVX -2147483649", INT32_MIN},
      // Past 19 digits a 64-bit sum would wrap too.
      {u"<!--QZVX 99999999999999999999999999 -->", INT32_MAX},
      {u"<!--QZVX -99999999999999999999999999 -->", INT32_MIN},
  };
  for (const auto& [text, label] : read) {
    int32_t n = 7;
    EXPECT_TRUE(ReadLabelComment(text, &n)) << std::u16string(text).size();
    EXPECT_EQ(n, label) << std::u16string(text).size();
  }
  for (const char16_t* text : {u"<!--QZV 3", u"<!--qzvx 3", u"<!--QZVX", u"<!--QZVX -", u"<!--QZVX +-3", u"<!--QZVX x3"}) {
    int32_t n = 7;
    EXPECT_FALSE(ReadLabelComment(text, &n)) << std::u16string(text).size();
    EXPECT_EQ(n, 7) << "left alone";
  }
}

}  // namespace
