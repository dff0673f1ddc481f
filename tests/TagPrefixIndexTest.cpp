// The server-tag test by prefix: the index must answer as StringArrayFind
// over gTagPrefixes would, as the list grows, while memory runs out under
// it, and on pages that declare tens of thousands of prefixes.
#include <string>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Session.h"
#include "TagPrefixIndex.h"

namespace {

class TagPrefixIndexTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(StringArrayCreate(&gTagPrefixes), 1);
    TagPrefixIndexStart();
  }
  void Add(const std::u16string& prefix) { StringArrayAdd(&gTagPrefixes, prefix.c_str()); }
  bool Listed(const std::u16string& name) { return StringArrayFind(&gTagPrefixes, name.c_str()) >= 0; }
};

std::u16string Wide(const std::string& s) { return std::u16string(s.begin(), s.end()); }

TEST_F(TagPrefixIndexTest, AgreesWithTheListAsItGrowsAndWhenMemoryRunsOut) {
  const std::u16string names[] = {u"asp:label", u"ASP:Label", u"asp", u"x:a", u"X", u"scriptlet", u"\u00c9:a",
                                  u"\u00e9:a", u"", u"q"};
  const std::u16string prefixes[] = {u"asp:", u"ASP:", u"x:", u"script", u"\u00c9:", u""};
  for (long failAt : {0L, 1L, 2L, 3L}) {
    StringArrayCreate(&gTagPrefixes);
    TagPrefixIndexStart();
    FaultFailAt(failAt);
    for (const std::u16string& prefix : prefixes) {
      Add(prefix);
      for (const std::u16string& name : names)
        EXPECT_EQ(TagPrefixIndexMatches(name.c_str()), Listed(name)) << "fail at " << failAt;
    }
    FaultFailAt(0);
  }
  // A list made anew behind the index's back, shorter than what it took in.
  TagPrefixIndexStart();
  for (const std::u16string& prefix : prefixes) Add(prefix);
  EXPECT_TRUE(TagPrefixIndexMatches(u"asp:x"));
  StringArrayCreate(&gTagPrefixes);
  Add(u"x:");
  for (const std::u16string& name : names) EXPECT_EQ(TagPrefixIndexMatches(name.c_str()), Listed(name));
}

// Regression: the test walked every declared prefix for every tag, so a page
// of many taglib directives and many tags took their product (its time is
// the benchmark's; here the answers over 50 000 prefixes).
TEST_F(TagPrefixIndexTest, ManyPrefixes) {
  const int32_t n = 50000;
  for (int32_t i = 0; i < n; ++i) {
    Add(Wide("p" + std::to_string(i) + ":"));
    ASSERT_FALSE(TagPrefixIndexMatches(u"div"));
  }
  for (const std::u16string name : {u"P49999:x", u"p0:", u"p5", u"p50000:a"})
    EXPECT_EQ(TagPrefixIndexMatches(name.c_str()), Listed(name)) << std::string(name.begin(), name.end());
}

}  // namespace
