// The open-tag stack: its four arrays in step, and the close-tag lookup
// through its index, which must answer as a walk down the stack would over
// tens of thousands of random pushes, pops and lookups, also while memory
// runs out under it.
#include <algorithm>
#include <random>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Memory.h"
#include "OpenTagStack.h"
#include "Session.h"

namespace {

using Texts = std::vector<std::u16string>;

class OpenTagStackTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    Make();
  }
  // An empty stack with a new index, as a pre pass begins.
  void Make() {
    ASSERT_TRUE(StringArrayCreate(&gOpenTags) && IntArrayCreate(&gOpenTagOffsets) &&
                IntArrayCreate(&gOpenTagIsServerTag) && IntArrayCreate(&gOpenTagIsNonHtmlServerTag));
    OpenTagStackStart();
  }
  bool InStep() {
    const int32_t n = gOpenTags.nSize;
    return gOpenTagOffsets.nSize == n && gOpenTagIsServerTag.nSize == n && gOpenTagIsNonHtmlServerTag.nSize == n;
  }
};

TEST_F(OpenTagStackTest, FindsTheInnermostEntryOfANameIgnoringCase) {
  // A few names that differ only in case or lie above 128, and enough
  // others that the index's table has to resolve collisions.
  Texts names = {u"a", u"A", u"b", u"x:a", u"X:A", u"td", u"TD", u"", u"\u00c9", u"\u00e9"};
  for (char16_t k = 0; k < 600; ++k) names.push_back({k % 2 ? u't' : u'T', static_cast<char16_t>(u'0' + k / 2)});
  std::mt19937 random(7);
  // Allocations 2 and 3 are the index's first ones: it is never built.
  for (long failAt : {0L, 2L, 3L, 40L, 400L}) {
    Make();
    FaultFailAt(failAt);
    for (int32_t step = 0; step < 20000; ++step) {
      std::u16string name = names[random() % 10 == 0 ? random() % 10 : random() % names.size()];
      if (random() % 4 != 0) {
        OpenTagStackPush(name.c_str(), step, 0);
        if (random() % 8 == 0) OpenTagStackPop(1);
        continue;
      }
      // Mostly one of the top two entries, in either letter case; else a
      // name never pushed, or now and then one of the small set (deep).
      unsigned choice = random() % 8;
      if (choice < 6 && gOpenTags.nSize > 0) {
        name = gOpenTags.pData[gOpenTags.nSize - 1 - random() % std::min(gOpenTags.nSize, 2)];
        if (random() % 2)
          for (char16_t& c : name) c = c >= u'a' && c <= u'z' ? c - 32 : c;
      } else {
        name = choice == 7 ? names[random() % 10] : u"u" + name;
      }
      const int32_t iExpected = StringArrayFindLastExact(&gOpenTags, name.c_str());
      ASSERT_EQ(OpenTagStackFind(name.c_str()), iExpected) << "step " << step << " fail at " << failAt;
      OpenTagStackPop(iExpected >= 0 ? gOpenTags.nSize - iExpected : 0);
      ASSERT_TRUE(InStep());
    }
    FaultFailAt(0);
  }
}

// A change made to the stack behind the index's back (a name pushed or
// dropped directly, arrays of unequal length) is noticed: the index goes,
// the lookups walk the stack and stay right, and the top is none while the
// arrays disagree.
TEST_F(OpenTagStackTest, ChangesBehindTheIndexBackAreNoticed) {
  for (const char16_t* name : {u"a", u"b", u"a"}) OpenTagStackPush(name, 0, 0);
  StringArrayPush(&gOpenTags, u"c");
  EXPECT_EQ(OpenTagStackTop(), -1) << "four arrays of unequal length";
  EXPECT_EQ(OpenTagStackFind(u"C"), 3);
  OpenTagStackStart();
  OpenTagStackPush(u"d", 0, 0);
  EXPECT_EQ(OpenTagStackFind(u"d"), 4) << "a push after the change walks too";
  Make();
  for (const char16_t* name : {u"e", u"f"}) OpenTagStackPush(name, 0, 0);
  MemFree(StringArrayPop(&gOpenTags));
  StringArrayPush(&gOpenTags, u"g");
  OpenTagStackPop(1);
  EXPECT_EQ(OpenTagStackFind(u"e"), 0) << "a name replaced behind its back";
  EXPECT_EQ(OpenTagStackFind(u"f"), -1);
  for (IntArray* a : {&gOpenTagOffsets, &gOpenTagIsServerTag, &gOpenTagIsNonHtmlServerTag}) {
    IntArrayPush(a, 0);
    EXPECT_EQ(OpenTagStackTop(), -1) << "one of the flag arrays longer";
    IntArrayPop(a);
  }
}

// The four arrays take an entry together or not at all. The 101st push
// grows all four, and each of its allocations is failed in turn.
TEST_F(OpenTagStackTest, APushThatFailsLeavesTheArraysInStep) {
  for (long failAt = 1;; ++failAt) {
    SCOPED_TRACE(failAt);
    Make();
    for (int32_t i = 0; i < 100; ++i) OpenTagStackPush(i % 2 ? u"p" : u"div", i, 0);
    FaultFailAt(failAt);
    const bool bPushed = OpenTagStackPush(u"x:a", 500, 1);
    const bool bFailed = FaultAttempts() >= failAt;
    FaultFailAt(0);
    EXPECT_EQ(bPushed, !bFailed);
    EXPECT_EQ(gOpenTags.nSize, bFailed ? 100 : 101);
    EXPECT_TRUE(InStep());
    EXPECT_EQ(OpenTagStackFind(u"DIV"), 98);
    EXPECT_EQ(OpenTagStackFind(u"X:a"), bFailed ? -1 : 100);
    if (!bFailed) break;
  }
}

}  // namespace
