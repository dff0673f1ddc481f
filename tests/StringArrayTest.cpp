// String arrays: case-folding lookups, ownership of popped strings, growth
// and what a failed allocation leaves behind.
#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Memory.h"
#include "StringArray.h"

namespace {

class StringArrayTest : public LibraryTest {
 protected:
  void TearDown() override { StringArrayDestroy(&array); LibraryTest::TearDown(); }
  // Creates or empties the array, then adds texts.
  StringArray* Fill(std::initializer_list<const char16_t*> texts) {
    EXPECT_EQ(StringArrayCreate(&array), 1);
    for (const char16_t* t : texts) EXPECT_EQ(StringArrayAdd(&array, t), 1);
    return &array;
  }
  StringArray array{};
};

// The text of a popped string, which is released.
std::u16string Take(char16_t* text) { return std::unique_ptr<char16_t, decltype(&MemFree)>(text, MemFree).get(); }

}  // namespace

// Each row: the strings, the text, then what Find, FindLast, FindExact and
// FindLastExact return.
TEST_F(StringArrayTest, LookupsFoldAsciiCaseOnly) {
  auto lookups = [&](std::initializer_list<const char16_t*> strings, const char16_t* text) {
    StringArray* a = Fill(strings);
    return std::vector<int32_t>{StringArrayFind(a, text), StringArrayFindLast(a, text), StringArrayFindExact(a, text),
                                StringArrayFindLastExact(a, text)};
  };
  using Found = std::vector<int32_t>;
  EXPECT_EQ(lookups({u"asp:", u""}, u"asp:label"), (Found{0, 1, -1, -1})) << "both prefixes, the lower index first";
  EXPECT_EQ(lookups({u"ASP:", u"asp:label2"}, u"asp:Label"), (Found{0, 0, -1, -1})) << "never a longer string";
  EXPECT_EQ(lookups({u"scr", u"Script", u"td", u"tr", u"TD"}, u"SCRIPT"), (Found{0, 1, 1, 1}));
  EXPECT_EQ(lookups({u"td", u"tr", u"TD"}, u"td"), (Found{0, 2, 0, 2}));
  EXPECT_EQ(lookups({u"\u00c9t\u00c9", u"z\u0130"}, u"\u00e9t\u00e9"), (Found{-1, -1, -1, -1}))
      << "an accented capital and its small letter differ";
  EXPECT_EQ(lookups({u"\u00c9T\u00c9", u"z\u0130"}, u"Zi"), (Found{-1, -1, -1, -1})) << "no folding of U+0130 to i";
  EXPECT_EQ(lookups({}, u""), (Found{-1, -1, -1, -1})) << "empty array";
}

TEST_F(StringArrayTest, PopHandsOverAndPopNReleasesTheRest) {
  StringArray* a = Fill({});
  EXPECT_EQ(StringArrayPop(a), nullptr) << "empty";
  Fill({u"x", u"y", u"z"});
  EXPECT_EQ(StringArrayPopN(a, 0), nullptr);
  EXPECT_EQ(a->nSize, 3) << "n below 1 changes nothing";
  EXPECT_EQ(Take(StringArrayPopN(a, 2)), u"y") << "z is released (leak check)";
  EXPECT_EQ(Take(StringArrayPop(a)), u"x");
  Fill({u"a", u"b"});
  EXPECT_EQ(StringArrayPopN(a, 3), nullptr) << "more than there are: all released";
  EXPECT_EQ(a->nSize, 0);
  EXPECT_EQ(StringArrayPopN(a, 1), nullptr) << "and from an empty array";
  StringArray never{};
  EXPECT_EQ(StringArrayAdd(&never, u"n"), 1) << "an array never created gets a first block";
  EXPECT_EQ(never.nCapacity, 100);
  StringArrayDestroy(&never);
}

TEST_F(StringArrayTest, GrowthAndFailedAllocations) {
  FaultFailAt(1);
  EXPECT_EQ(StringArrayCreate(&array), 0);
  EXPECT_EQ(array.pData, nullptr);
  FaultFailAt(0);
  char16_t** pFirst = Fill({u"one", u"two"})->pData;
  Fill({});  // releases the strings in use (leak check), keeps the storage
  EXPECT_EQ(array.pData, pFirst);
  for (int i = 0; i < 100; ++i) StringArrayPush(&array, u"s");
  // The 101st string needs a larger storage and a copy: fail each in turn.
  long failAt = 1;
  for (; failAt < 10; ++failAt) {
    FaultFailAt(failAt);
    int ok = StringArrayAdd(&array, u"new");
    FaultFailAt(0);
    if (ok) break;
    EXPECT_EQ(array.nSize, 100) << "fail at " << failAt;
    EXPECT_EQ(std::u16string(array.pData[99]), u"s");
  }
  EXPECT_EQ(failAt, 3) << "two allocations, each failed once";
  EXPECT_EQ(array.nCapacity, 200);
  EXPECT_EQ(StringArrayFindExact(&array, u"NEW"), 100);

  char16_t* storage[1] = {nullptr};  // 2^30 strings claimed: doubling passes INT32_MAX
  StringArray huge{storage, 1 << 30, 1 << 30};
  FaultFailAt(0);
  EXPECT_EQ(StringArrayAdd(&huge, u"x"), 0);
  EXPECT_EQ(FaultAttempts(), 0) << "refused before allocating";
  EXPECT_EQ(huge.pData, storage);
  EXPECT_EQ(huge.nSize, 1 << 30);
}
