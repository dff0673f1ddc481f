// String arrays: case-folding lookups, ownership of popped strings, growth
// and what a failed allocation leaves behind.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "FakeHost.h"
#include "Memory.h"
#include "StringArray.h"

namespace {

class StringArrayTest : public LibraryTest {
 protected:
  void TearDown() override {
    StringArrayDestroy(&array);
    LibraryTest::TearDown();
  }
  void Fill(std::initializer_list<const char16_t*> texts) {
    ASSERT_EQ(StringArrayCreate(&array), 1);
    for (const char16_t* t : texts) ASSERT_EQ(StringArrayAdd(&array, t), 1);
  }
  StringArray array{};
};

// Takes a popped string: checks it and releases it.
std::u16string Take(char16_t* text) {
  if (!text) return u"<null>";
  std::u16string s(text);
  MemFree(text);
  return s;
}

}  // namespace

TEST_F(StringArrayTest, FindTakesPrefixesFoldingAsciiCase) {
  Fill({u"asp:", u""});
  EXPECT_EQ(StringArrayFind(&array, u"asp:label"), 0) << "both match, the lower index wins";
  EXPECT_EQ(StringArrayFindLast(&array, u"asp:label"), 1) << "the empty string matches all";
  EXPECT_EQ(StringArrayFind(&array, u""), 1);

  Fill({u"ASP:", u"asp:label2"});
  EXPECT_EQ(StringArrayFind(&array, u"asp:Label"), 0);
  EXPECT_EQ(StringArrayFindLast(&array, u"asp:Label"), 0) << "a longer string never matches";
  EXPECT_EQ(StringArrayFind(&array, u"as"), -1);

  Fill({});
  EXPECT_EQ(StringArrayFind(&array, u"x"), -1) << "empty array";
  EXPECT_EQ(StringArrayFindLastExact(&array, u"x"), -1);
}

TEST_F(StringArrayTest, ExactLookupsMatchWholeStrings) {
  Fill({u"Script", u"scr"});
  EXPECT_EQ(StringArrayFindExact(&array, u"script"), 0);
  EXPECT_EQ(StringArrayFindExact(&array, u"scri"), -1);
  EXPECT_EQ(StringArrayFindExact(&array, u"SCR"), 1);

  Fill({u"td", u"tr", u"td"});
  EXPECT_EQ(StringArrayFindExact(&array, u"TD"), 0);
  EXPECT_EQ(StringArrayFindLastExact(&array, u"TD"), 2);
  EXPECT_EQ(StringArrayFindLastExact(&array, u"t"), -1);
}

TEST_F(StringArrayTest, UnitsFrom128MatchOnlyThemselves) {
  Fill({u"\u00c9t\u00c9", u"z\u0130"});
  EXPECT_EQ(StringArrayFindExact(&array, u"\u00e9t\u00e9"), -1) << "accented capital vs small";
  EXPECT_EQ(StringArrayFindExact(&array, u"\u00c9T\u00c9"), 0) << "ASCII still folds";
  EXPECT_EQ(StringArrayFind(&array, u"Zi"), -1) << "no folding of U+0130 to i";
}

TEST_F(StringArrayTest, PopHandsOverAndPopNReleasesTheRest) {
  Fill({});
  EXPECT_EQ(StringArrayPop(&array), nullptr) << "empty";

  Fill({u"x", u"y", u"z"});
  EXPECT_EQ(StringArrayPopN(&array, 0), nullptr);
  EXPECT_EQ(array.nSize, 3) << "n below 1 changes nothing";
  EXPECT_EQ(Take(StringArrayPopN(&array, 2)), u"y") << "z is released (leak check)";
  EXPECT_EQ(array.nSize, 1);
  EXPECT_EQ(Take(StringArrayPop(&array)), u"x");

  Fill({u"a", u"b"});
  EXPECT_EQ(StringArrayPopN(&array, 3), nullptr) << "more than there are: all released";
  EXPECT_EQ(array.nSize, 0);
}

TEST_F(StringArrayTest, CreateEmptiesAndGrowthDoubles) {
  Fill({u"one", u"two"});
  char16_t** pBefore = array.pData;
  ASSERT_EQ(StringArrayCreate(&array), 1) << "the strings in use are released (leak check)";
  EXPECT_EQ(array.nSize, 0);
  EXPECT_EQ(array.pData, pBefore);

  for (int i = 0; i < 100; ++i) ASSERT_EQ(StringArrayPush(&array, u"s"), 1);
  EXPECT_EQ(array.nCapacity, 100);
  ASSERT_EQ(StringArrayAdd(&array, u"101st"), 1);
  EXPECT_EQ(array.nCapacity, 200);
  EXPECT_EQ(StringArrayFindExact(&array, u"101ST"), 100);
}

TEST_F(StringArrayTest, FailedAllocationsKeepTheStrings) {
  MemFailAt(1);
  EXPECT_EQ(StringArrayCreate(&array), 0);
  EXPECT_EQ(array.pData, nullptr);

  // The 101st string needs a larger storage and a copy: fail each in turn.
  MemFailAt(0);
  Fill({});
  for (int i = 0; i < 100; ++i) StringArrayAdd(&array, u"s");
  int nFailures = 0;
  for (long failAt = 1;; ++failAt) {
    MemFailAt(failAt);
    int ok = StringArrayAdd(&array, u"new");
    MemFailAt(0);
    if (ok) break;
    ++nFailures;
    EXPECT_EQ(array.nSize, 100) << "fail at " << failAt;
    EXPECT_EQ(std::u16string(array.pData[99]), u"s");
  }
  EXPECT_EQ(nFailures, 2);
  EXPECT_EQ(std::u16string(array.pData[100]), u"new");
}

TEST_F(StringArrayTest, GrowthPast32BitsFailsWithoutAllocating) {
  char16_t* storage[1] = {nullptr};
  StringArray huge{storage, 1 << 30, 1 << 30};
  MemFailAt(0);
  EXPECT_EQ(StringArrayAdd(&huge, u"x"), 0);
  EXPECT_EQ(MemAttempts(), 0);
  EXPECT_EQ(huge.pData, storage);
  EXPECT_EQ(huge.nSize, 1 << 30);
}
