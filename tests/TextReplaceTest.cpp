// Text replacement inside elements of one tag name: the walk, with the
// lengths a host reports (NUL units included) and the output's room.
#include <gtest/gtest.h>

#include <string>

#include "FakeHost.h"
#include "Memory.h"
#include "TextReplace.h"

namespace {

using TextReplaceTest = LibraryTest;

// The walk over text with the other three texts as long as given.
std::u16string Replace(const std::u16string& text, const std::u16string& tag, const std::u16string& search,
                       const std::u16string& replacement) {
  char16_t* out = StringReplaceTextInsideTag(text.c_str(), static_cast<int64_t>(text.size()), tag.c_str(),
                                             static_cast<int64_t>(tag.size()), search.c_str(),
                                             static_cast<int64_t>(search.size()), replacement.c_str(),
                                             static_cast<int64_t>(replacement.size()));
  std::u16string s = out ? out : u"<null>";
  MemFree(out);
  return s;
}

TEST_F(TextReplaceTest, ReplacesOnlyInsideTheNamedElements) {
  EXPECT_EQ(Replace(u"<b>x</b> x", u"b", u"x", u"y"), u"<b>y</b> x");
  EXPECT_EQ(Replace(u"<b><b>x</b>x</b>x", u"b", u"x", u"y"), u"<b><b>y</b>y</b>x");
  EXPECT_EQ(Replace(u"<b>b</b>", u"b", u"b", u"y"), u"<y>y</b>");
  EXPECT_EQ(Replace(u"<B>abc</b>", u"b", u"AbC", u"z"), u"<B>z</b>");
  EXPECT_EQ(Replace(u"<br>x", u"b", u"x", u"y"), u"<br>y");
  EXPECT_EQ(Replace(u"</b>x", u"b", u"x", u"y"), u"</b>x");
  EXPECT_EQ(Replace(u"a<i>x</i>x", u"", u"x", u"y"), u"a<i>y</i>y");
  EXPECT_EQ(Replace(u"no tag x", u"b", u"x", u"y"), u"no tag x");
  EXPECT_EQ(Replace(u"<b>x</i>x</b>x<", u"b", u"x", u"y"), u"<b>y</i>y</b>x<") << "another close tag; a last <";
}

// The tag name, search text and replacement are as long as the host says,
// U+0000 included; the text ends at its NUL, and a comparison that would
// need the NUL or what lies past it does not match.
TEST_F(TextReplaceTest, ReplacementTakesTheHostsLengthsNulUnitsIncluded) {
  using namespace std::string_literals;
  EXPECT_EQ(Replace(u"<b>xy", u"b", u"xy", u"z"), u"<b>z") << "a search that ends with the text";
  EXPECT_EQ(Replace(u"<b>x", u"b", u"x\0"s, u"z"), u"<b>x") << "a search that needs the text's NUL";
  EXPECT_EQ(Replace(u"<b", u"b", u"b", u"z"), u"<z") << "a tag name that ends with the text";
  EXPECT_EQ(Replace(u"<b", u"b\0"s, u"b", u"z"), u"<b") << "a tag name that needs the text's NUL";
  EXPECT_EQ(Replace(u"<b>x\0<b>x"s, u"b", u"x", u"z"), u"<b>z") << "the walk ends at the text's first NUL";
}

TEST_F(TextReplaceTest, ReplacementsGrowTheTextWithinItsBudget) {
  // Ten units, eight of them replaced by pairs: 2 units become 5, four times.
  EXPECT_EQ(Replace(u"<bxxxxxxxx", u"b", u"xx", u"12345").size(), 10u + 4 * 3);
  // An empty search text finds nothing.
  EXPECT_EQ(Replace(u"<b>x</b>", u"b", u"", u"y"), u"<b>x</b>");
}

}  // namespace
