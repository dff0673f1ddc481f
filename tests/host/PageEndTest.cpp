// A directive cut off by the end of the page: whether a server block is left
// open, whether it holds code, how a server gets it closed, and what the
// library is told in its place.
#include "PageEnd.h"

#include <gtest/gtest.h>

#include "Utf8.h"

using namespace qzhost;

TEST(PageEndTest, WhatAnOpenBlockLeavesOpen) {
  const std::pair<std::u16string, std::string> cases[] = {
      {u"<?php f();", "open, code, told <?php f(?>"},
      {u"<? a ?><? b", "open, code, told as it is"},
      {u"<? \t\r\n\f\v", "open, told as it is"},
      {u"<?x", "open, code, told as it is"},
      {u"<!-- <? a ?> -->", "told as it is"},
  };
  for (const auto& [text, says] : cases) {
    OpenEnd open = DescribeOpenEnd(text, u"<?", u"?>");
    std::string got = std::string(open.bServerBlockOpen ? "open, " : "") + (open.bHoldsCode ? "code, " : "") +
                      "told " + (open.reportAs.empty() ? "as it is" : EncodeUtf8(open.reportAs));
    EXPECT_EQ(got, says) << EncodeUtf8(text);
    EXPECT_EQ(ShownClosing(open.closing), open.bServerBlockOpen ? "?>" : "");
  }
  EXPECT_FALSE(DescribeOpenEnd(u"<?x", u"", u"?>").bServerBlockOpen) << "a profile without directives";
}
