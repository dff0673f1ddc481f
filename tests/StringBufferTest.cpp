// The string buffer: its growth sizes (the free unit after the text is a
// promise callers rely on), failed growth, and the negative-count assertion.
#include <gtest/gtest.h>

#include <string>

#include "FakeHost.h"
#include "Memory.h"
#include "StringBuffer.h"

namespace {

class StringBufferTest : public LibraryTest {
 protected:
  void TearDown() override {
    MemFree(buffer.pData);
    LibraryTest::TearDown();
  }
  std::u16string Held() const { return std::u16string(buffer.pData, buffer.nSize); }
  StringBuffer buffer{};
};

}  // namespace

TEST_F(StringBufferTest, GrowthSizes) {
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  EXPECT_EQ(buffer.nCapacity, 8192);
  EXPECT_EQ(StringBufferAdd(&buffer, nullptr, 0), 1) << "0 units";
  EXPECT_EQ(buffer.nSize, 0);

  std::u16string text(8191, u'a');
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 8191), 1);
  EXPECT_EQ(buffer.nCapacity, 8192) << "8191 units still leave the free unit";

  MemFree(buffer.pData);
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  text.push_back(u'b');
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 8192), 1);
  EXPECT_EQ(buffer.nCapacity, 8192 * 2 + 8192);
  EXPECT_EQ(Held(), text);
}

TEST_F(StringBufferTest, CopiesNulUnitsAndKeepsAFreeUnit) {
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  const char16_t kWithNul[] = {u'a', 0, u'b'};
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(StringBufferAdd(&buffer, kWithNul, 3), 1);
    ASSERT_LT(buffer.nSize, buffer.nCapacity);
  }
  EXPECT_EQ(Held().substr(0, 6), (std::u16string{u'a', 0, u'b', u'a', 0, u'b'}));
  EXPECT_EQ(buffer.nSize, 15000);
}

TEST_F(StringBufferTest, AppendsFromItsOwnStorageAcrossGrowth) {
  // The source moves with the storage: without that this reads freed memory.
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  std::u16string text(6000, u'q');
  text[0] = u'Q';
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 6000), 1);
  ASSERT_EQ(StringBufferAdd(&buffer, buffer.pData, 6000), 1);
  EXPECT_GT(buffer.nCapacity, 8192);
  EXPECT_EQ(Held(), text + text);
}

TEST_F(StringBufferTest, FailedGrowthLeavesTheBufferAsItWas) {
  MemFailAt(1);
  EXPECT_EQ(StringBufferCreate(&buffer), 0);
  EXPECT_EQ(buffer.pData, nullptr);
  MemFailAt(0);

  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  std::u16string text(8000, u'x');
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 8000), 1);
  char16_t* pBefore = buffer.pData;
  MemFailAt(1);
  EXPECT_EQ(StringBufferAdd(&buffer, text.data(), 500), 0);
  MemFailAt(0);
  EXPECT_EQ(buffer.pData, pBefore);
  EXPECT_EQ(buffer.nSize, 8000);
  EXPECT_EQ(buffer.nCapacity, 8192);
  EXPECT_EQ(StringBufferAdd(&buffer, text.data(), 500), 1);
  EXPECT_EQ(buffer.nSize, 8500);
}

TEST_F(StringBufferTest, GrowthPast32BitsFailsWithoutAllocating) {
  // 2 x capacity would pass INT32_MAX; the storage is never touched.
  char16_t storage[1] = {0};
  StringBuffer huge{storage, 0x50000000 - 1, 0x50000000};
  MemFailAt(0);
  EXPECT_EQ(StringBufferAdd(&huge, u"x", 1), 0);
  EXPECT_EQ(MemAttempts(), 0);
  EXPECT_EQ(huge.pData, storage);
  EXPECT_EQ(huge.nSize, 0x50000000 - 1);
  EXPECT_EQ(huge.nCapacity, 0x50000000);
}

TEST(StringBufferDeathTest, NegativeCountStops) {
  StringBuffer b{};
  EXPECT_DEATH(StringBufferAdd(&b, u"x", -1), "nbytes >= 0.*StringBufferAdd.*StringBuffer\\.cpp");
}
