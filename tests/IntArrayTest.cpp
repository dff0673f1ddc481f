// Integer arrays: growth sizes, what a failed growth leaves, stack removal,
// the four-way pick (the merge writes its own out) and clamping, and the two
// contract assertions. The two-way pick is pinned by the label insertion,
// which fails on any wrong pick.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "IntArray.h"
#include "Memory.h"

namespace {

class IntArrayTest : public LibraryTest {
 protected:
  void TearDown() override {
    for (IntArray& a : arrays) IntArrayDestroy(&a);
    LibraryTest::TearDown();
  }
  // Creates (or empties) arrays[k] and fills it with values.
  IntArray* Fill(int k, const std::vector<int32_t>& values) {
    EXPECT_EQ(IntArrayCreate(&arrays[k]), 1);
    for (int32_t v : values) EXPECT_EQ(IntArrayAdd(&arrays[k], v), 1);
    return &arrays[k];
  }
  IntArray arrays[8]{};
};

auto Fields(const IntArray& a) { return std::tuple(a.pData, a.nSize, a.nCapacity); }

}  // namespace

TEST_F(IntArrayTest, GrowthSizesAndFailedGrowth) {
  EXPECT_EQ(IntArrayAdd(&arrays[1], 5), 1) << "an array never created gets a first block";
  EXPECT_EQ(Fields(arrays[1]), std::tuple(arrays[1].pData, 1, 100));
  FaultFailAt(1);
  EXPECT_EQ(IntArrayCreate(&arrays[0]), 0);
  EXPECT_EQ(arrays[0].pData, nullptr) << "a failed create leaves it never created";
  FaultFailAt(0);
  std::vector<int32_t> values(100, 7);
  IntArray* a = Fill(0, values);
  int32_t* pFirst = a->pData;
  FaultFailAt(1);
  EXPECT_EQ(IntArrayAdd(a, 8), 0);
  EXPECT_EQ(Fields(*a), std::tuple(pFirst, 100, 100)) << "100 fit the first storage; a failed growth changes nothing";
  FaultFailAt(0);
  for (int32_t i = 0; i < 301; ++i) ASSERT_EQ(IntArrayPush(a, 8), 1) << i;
  values.resize(401, 8);
  EXPECT_EQ(std::vector<int32_t>(a->pData, a->pData + a->nSize), values);
  EXPECT_EQ(a->nCapacity, 800) << "doubled: 200, 400, 800";
  int32_t* pGrown = a->pData;
  ASSERT_EQ(IntArrayCreate(a), 1);
  EXPECT_EQ(Fields(*a), std::tuple(pGrown, 0, 800)) << "create again empties and keeps the storage";

  // 2^30 full slots: doubling would pass INT32_MAX. The storage is never
  // touched, so one real element stands in for it.
  int32_t storage = 5;
  IntArray huge{&storage, 1 << 30, 1 << 30};
  FaultFailAt(0);
  EXPECT_EQ(IntArrayAdd(&huge, 1), 0);
  EXPECT_EQ(FaultAttempts(), 0) << "refused before allocating";
  EXPECT_EQ(Fields(huge), std::tuple(&storage, 1 << 30, 1 << 30));
}

TEST_F(IntArrayTest, PopAndPopN) {
  IntArray* a = Fill(0, {});
  EXPECT_EQ(IntArrayPop(a), -1) << "empty";
  Fill(0, {7, 8, 9, 10});
  EXPECT_EQ(IntArrayPopN(a, 0), -1);
  EXPECT_EQ(IntArrayPopN(a, -2), -1);
  EXPECT_EQ(a->nSize, 4) << "n below 1 changes nothing";
  EXPECT_EQ(IntArrayPop(a), 10);
  EXPECT_EQ(IntArrayPopN(a, 2), 8) << "the earliest removed";
  EXPECT_EQ(IntArrayPopN(a, 2), -1) << "more than there are: all removed";
  EXPECT_EQ(a->nSize, 0);
}

// The four-way pick: the smallest next element, the later array at equal
// values, arrays read out passed over. Values past the int32 range are
// held at its ends when stored.
TEST_F(IntArrayTest, PicksOfFourAndClamping) {
  IntArray* a = Fill(0, {5, 9});
  IntArray* b = Fill(1, {7});
  IntArray* c = Fill(2, {5});
  IntArray* d = Fill(3, {});
  EXPECT_EQ(IntArrayGetNext4(a, 0, b, 0, c, 0, d, 0), c) << "5 in a and c: the later";
  EXPECT_EQ(IntArrayGetNext4(a, 1, b, 0, c, 0, d, 0), c);
  EXPECT_EQ(IntArrayGetNext4(a, 1, b, 0, c, 1, d, 0), b) << "c read out";
  EXPECT_EQ(IntArrayGetNext4(a, 1, b, 1, c, 1, d, 0), a) << "only a left";
  EXPECT_EQ(IntArrayGetNext4(d, 0, c, 0, b, 0, a, 0), a) << "in any order";
  EXPECT_EQ(IntArrayClamp(int64_t{INT32_MAX} + 1), INT32_MAX);
  EXPECT_EQ(IntArrayClamp(int64_t{INT32_MIN} - 1), INT32_MIN);
  EXPECT_EQ(IntArrayClamp(-5), -5);
}

TEST(IntArrayDeathTest, MergeWithNothingLeftStops) {
  IntArray a{}, b{};
  EXPECT_DEATH(IntArrayGetNext(&a, 0, &b, 0), "index2 < array2->nSize.*IntArrayGetNext.*IntArray\\.cpp");
  EXPECT_DEATH(IntArrayGetNext4(&a, 0, &b, 0, &a, 0, &b, 0), "bestArray != NULL.*IntArrayGetNext4.*IntArray\\.cpp");
}
