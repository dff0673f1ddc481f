// A directive cut off by the end of the page: whether a server block is left
// open, whether it holds code, how a server gets it closed, and what the
// library is told in its place.
#include "PageEnd.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Utf8.h"

using namespace qzhost;

TEST(PageEndTest, WhatAnOpenBlockLeavesOpen) {
  const std::pair<std::u16string, std::string> cases[] = {
      {u"<?php f();", "open, code, told <?php f(?>"},
      {u"<? a ?><? b", "open, code, told as it is"},
      {u"<? \t\r\n\f\v", "open, told as it is"},
      // A control character below the white space is code.
      {u"<? \x01", "open, code, told <?" "?>"},
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

namespace {

// Writes down what the scan reports, one word each; fails at the event
// numbered failAt (from 0).
class Recorder : public ScanSink {
 public:
  explicit Recorder(int failAt = -1) : failAt_(failAt) {}
  bool Directive(std::u16string_view text, int32_t offset) override { return Note("directive", text, offset); }
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override { return Note("open", name, offset); }
  bool Attribute(std::u16string_view name, std::u16string_view) override { return Note("attribute", name, 0); }
  bool OpenTagEnd(int32_t endOffset, std::u16string_view) override { return Note("end", u"", endOffset); }
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override { return Note("close", name, offset); }
  bool CloseTagEnd(int32_t endOffset) override { return Note("end", u"", endOffset); }
  bool Text(std::u16string_view text, int32_t offset) override { return Note("text", text, offset); }
  std::string said;

 private:
  bool Note(const char* what, std::u16string_view text, int32_t offset) {
    said += std::string(said.empty() ? "" : " ") + what + "(" + EncodeUtf8(text) + "@" + std::to_string(offset) + ")";
    return n_++ != failAt_;
  }
  int failAt_;
  int n_ = 0;
};

}  // namespace

TEST(PageEndTest, TheLastLabelIsScannedApartFromWhatThePageLeavesOpen) {
  const std::u16string label = u"<!--QZVX 3 -->", output = u"<p>x<!-- note" + label;
  struct Case {
    std::u16string output, lastLabel;
    int failAt;
    bool ok;
    std::string said;
  } cases[] = {
      {output, label, -1, true, "open(p@0) end(@3) text(x@3) directive(<!-- note@4) directive(<!--QZVX 3 -->@13)"},
      {output, u"", -1, true, "open(p@0) end(@3) text(x@3) directive(<!-- note<!--QZVX 3 -->@4)"},
      {u"-->", label, -1, true, "text(-->@0)"},
      {u"<p>x<!-- note<!--QZVX 1 -->", label, -1, true, "open(p@0) end(@3) text(x@3) directive(<!-- note<!--QZVX 1 -->@4)"},
      {output, label, 1, false, "open(p@0) end(@3)"},
  };
  for (const Case& c : cases) {
    Recorder sink(c.failAt);
    EXPECT_EQ(ScanOutput(c.output, c.lastLabel, sink), c.ok) << sink.said;
    EXPECT_EQ(sink.said, c.said);
  }
}
