// Integer arrays: growth sizes, what a failed growth leaves, stack removal
// and merge selection, and the two contract assertions.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "FakeHost.h"
#include "IntArray.h"
#include "Memory.h"

namespace {

class IntArrayTest : public LibraryTest {
 protected:
  void TearDown() override {
    IntArrayDestroy(&array);
    LibraryTest::TearDown();
  }
  IntArray array{};
};

IntArray Filled(std::vector<int32_t> values) {
  IntArray a{};
  EXPECT_EQ(IntArrayCreate(&a), 1);
  for (int32_t v : values) EXPECT_EQ(IntArrayAdd(&a, v), 1);
  return a;
}

}  // namespace

TEST_F(IntArrayTest, CreateKeepsExistingStorage) {
  ASSERT_EQ(IntArrayCreate(&array), 1);
  EXPECT_EQ(array.nCapacity, 100);
  for (int i = 0; i < 5; ++i) IntArrayAdd(&array, i);
  int32_t* pBefore = array.pData;
  ASSERT_EQ(IntArrayCreate(&array), 1);
  EXPECT_EQ(array.nSize, 0);
  EXPECT_EQ(array.pData, pBefore);
  EXPECT_EQ(array.nCapacity, 100);
}

TEST_F(IntArrayTest, GrowthDoublesAndKeepsValues) {
  ASSERT_EQ(IntArrayCreate(&array), 1);
  for (int32_t i = 0; i < 100; ++i) ASSERT_EQ(IntArrayPush(&array, i * 3), 1);
  EXPECT_EQ(array.nCapacity, 100) << "the first 100 need no growth";
  ASSERT_EQ(IntArrayAdd(&array, 300), 1);
  EXPECT_EQ(array.nCapacity, 200);
  for (int32_t i = 101; i < 201; ++i) ASSERT_EQ(IntArrayAdd(&array, i * 3), 1);
  EXPECT_EQ(array.nCapacity, 400);
  ASSERT_EQ(array.nSize, 201);
  for (int32_t i = 0; i < 201; ++i) ASSERT_EQ(array.pData[i], i * 3);
}

TEST_F(IntArrayTest, FailedAllocationLeavesArrayAsItWas) {
  // Create: nothing allocated, still never created.
  MemFailAt(1);
  EXPECT_EQ(IntArrayCreate(&array), 0);
  EXPECT_EQ(array.pData, nullptr);
  EXPECT_EQ(array.nCapacity, 0);
  MemFailAt(0);

  // Add into full storage: same storage, same contents, and it works later.
  ASSERT_EQ(IntArrayCreate(&array), 1);
  for (int32_t i = 0; i < 100; ++i) IntArrayAdd(&array, i);
  int32_t* pBefore = array.pData;
  MemFailAt(1);
  EXPECT_EQ(IntArrayAdd(&array, 100), 0);
  EXPECT_EQ(array.pData, pBefore);
  EXPECT_EQ(array.nSize, 100);
  EXPECT_EQ(array.nCapacity, 100);
  EXPECT_EQ(array.pData[99], 99);
  MemFailAt(0);
  EXPECT_EQ(IntArrayAdd(&array, 100), 1);
  EXPECT_EQ(array.pData[100], 100);
}

TEST_F(IntArrayTest, GrowthPast32BitsFailsWithoutAllocating) {
  // A record claiming 2^30 full slots: doubling would pass INT32_MAX. The
  // storage is never touched, so one real element stands in for it.
  int32_t storage = 5;
  IntArray huge{&storage, 1 << 30, 1 << 30};
  MemFailAt(0);
  EXPECT_EQ(IntArrayAdd(&huge, 1), 0);
  EXPECT_EQ(MemAttempts(), 0);
  EXPECT_EQ(huge.pData, &storage);
  EXPECT_EQ(huge.nSize, 1 << 30);
  EXPECT_EQ(huge.nCapacity, 1 << 30);
}

TEST_F(IntArrayTest, PopAndPopN) {
  ASSERT_EQ(IntArrayCreate(&array), 1);
  EXPECT_EQ(IntArrayPop(&array), -1) << "empty";

  for (int32_t v : {7, 8, 9, 10}) IntArrayAdd(&array, v);
  EXPECT_EQ(IntArrayPopN(&array, 0), -1);
  EXPECT_EQ(IntArrayPopN(&array, -2), -1);
  EXPECT_EQ(array.nSize, 4) << "n below 1 changes nothing";
  EXPECT_EQ(IntArrayPopN(&array, 3), 8) << "the earliest removed";
  EXPECT_EQ(array.nSize, 1);
  EXPECT_EQ(IntArrayPop(&array), 7);
  EXPECT_EQ(array.nSize, 0);

  for (int32_t v : {1, 2, 3, 4}) IntArrayAdd(&array, v);
  EXPECT_EQ(IntArrayPopN(&array, 5), -1) << "more than there are";
  EXPECT_EQ(array.nSize, 0);
  EXPECT_EQ(IntArrayPopN(&array, 1), -1);
}

TEST_F(IntArrayTest, GetNextPicksTheSmallerHeadSecondOnTies) {
  IntArray a = Filled({3, 10});
  IntArray b = Filled({3, -5});
  IntArray empty = Filled({});
  EXPECT_EQ(IntArrayGetNext(&a, 0, &b, 0), &b) << "3 and 3";
  EXPECT_EQ(IntArrayGetNext(&a, 1, &b, 1), &b) << "signed: -5 before 10";
  IntArray two = Filled({2});
  EXPECT_EQ(IntArrayGetNext(&two, 0, &a, 0), &two) << "2 and 3";
  EXPECT_EQ(IntArrayGetNext(&a, 2, &b, 0), &b) << "first exhausted";
  EXPECT_EQ(IntArrayGetNext(&a, 0, &empty, 0), &a) << "second empty";
  for (IntArray* p : {&a, &b, &empty, &two}) IntArrayDestroy(p);
}

TEST_F(IntArrayTest, GetNext4PicksSmallestLaterOnTies) {
  IntArray a5 = Filled({5}), b5 = Filled({5}), c5 = Filled({5}), d5 = Filled({5});
  IntArray six = Filled({6}), seven = Filled({7}), four = Filled({4}), empty = Filled({});
  EXPECT_EQ(IntArrayGetNext4(&a5, 0, &empty, 0, &b5, 0, &four, 0), &four) << "5, none, 5, 4";
  EXPECT_EQ(IntArrayGetNext4(&a5, 0, &six, 0, &seven, 0, &empty, 0), &a5) << "5, 6, 7, none";
  EXPECT_EQ(IntArrayGetNext4(&a5, 0, &b5, 0, &c5, 0, &d5, 0), &d5) << "5, 5, 5, 5";
  EXPECT_EQ(IntArrayGetNext4(&a5, 0, &b5, 0, &c5, 0, &d5, 1), &c5) << "the last exhausted";
  EXPECT_EQ(IntArrayGetNext4(&a5, 1, &b5, 1, &c5, 1, &six, 0), &six) << "only the last left";
  for (IntArray* p : {&a5, &b5, &c5, &d5, &six, &seven, &four, &empty}) IntArrayDestroy(p);
}

TEST(IntArrayDeathTest, MergeWithNothingLeftStops) {
  IntArray a{}, b{};
  EXPECT_DEATH(IntArrayGetNext(&a, 0, &b, 0),
               "index2 < array2->nSize.*IntArrayGetNext.*IntArray\\.cpp");
  EXPECT_DEATH(IntArrayGetNext4(&a, 0, &b, 0, &a, 0, &b, 0),
               "bestArray != NULL.*IntArrayGetNext4.*IntArray\\.cpp");
}
