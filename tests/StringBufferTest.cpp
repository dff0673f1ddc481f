// The string buffer: its growth sizes (the free unit after the text is a
// promise callers rely on), failed growth, and the negative-count assertion.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Memory.h"
#include "StringBuffer.h"

namespace {

class StringBufferTest : public LibraryTest {
 protected:
  void TearDown() override { MemFree(buffer.pData); LibraryTest::TearDown(); }
  std::u16string Held() const { return std::u16string(buffer.pData, buffer.nSize); }
  StringBuffer buffer{};
};

auto Fields(const StringBuffer& b) { return std::tuple(b.pData, b.nSize, b.nCapacity); }

}  // namespace

TEST_F(StringBufferTest, GrowthSizesAndAppendsFromItself) {
  EXPECT_EQ(StringBufferAdd(&buffer, u"ab", 2), 1) << "a buffer never created keeps a free unit after the text";
  EXPECT_EQ(Fields(buffer), std::tuple(buffer.pData, 2, 3));
  MemFree(buffer.pData);
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  EXPECT_EQ(StringBufferAdd(&buffer, nullptr, 0), 1) << "0 units";
  std::u16string text(8191, u'a');
  text[1] = 0;  // copied like any other unit
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 8191), 1);
  EXPECT_EQ(buffer.nCapacity, 8192) << "8191 units still leave the free unit";
  ASSERT_EQ(StringBufferAdd(&buffer, u"b", 1), 1);
  EXPECT_EQ(buffer.nCapacity, 8192 * 2 + 1) << "8192 units do not: 2 x capacity + units added";
  // From its own storage, across a growth: the source moves with it.
  ASSERT_EQ(StringBufferAdd(&buffer, buffer.pData, 8192), 1);
  ASSERT_EQ(StringBufferAdd(&buffer, buffer.pData, 16384), 1);
  EXPECT_EQ(buffer.nCapacity, 16385 * 2 + 16384);
  text += u"b";
  EXPECT_EQ(Held(), text + text + text + text);
}

TEST_F(StringBufferTest, FailedGrowthLeavesTheBufferAsItWas) {
  FaultFailAt(1);
  EXPECT_EQ(StringBufferCreate(&buffer), 0);
  EXPECT_EQ(buffer.pData, nullptr);
  FaultFailAt(0);
  ASSERT_EQ(StringBufferCreate(&buffer), 1);
  std::u16string text(8000, u'x');
  ASSERT_EQ(StringBufferAdd(&buffer, text.data(), 8000), 1);
  auto before = Fields(buffer);
  FaultFailAt(1);
  EXPECT_EQ(StringBufferAdd(&buffer, text.data(), 500), 0);
  EXPECT_EQ(Fields(buffer), before);

  // 2 x capacity would pass INT32_MAX; the storage is never touched.
  char16_t storage[1] = {0};
  StringBuffer huge{storage, 0x50000000 - 1, 0x50000000};
  FaultFailAt(0);
  EXPECT_EQ(StringBufferAdd(&huge, u"x", 1), 0);
  EXPECT_EQ(FaultAttempts(), 0) << "refused before allocating";
  EXPECT_EQ(Fields(huge), std::tuple(storage, 0x50000000 - 1, 0x50000000));

  // Counts from 64-bit arithmetic or measured texts are refused, not wrapped
  // or asserted on.
  for (int64_t nUnits : {int64_t{-1}, int64_t{INT32_MAX} + 1, int64_t{1} << 32})
    EXPECT_EQ(StringBufferAddUnits(&huge, u"x", nUnits), 0) << nUnits;
  EXPECT_EQ(Fields(huge), std::tuple(storage, 0x50000000 - 1, 0x50000000));
}

TEST(StringBufferDeathTest, NegativeCountStops) {
  StringBuffer b{};
  EXPECT_DEATH(StringBufferAdd(&b, u"x", -1), "nbytes >= 0.*StringBufferAdd.*StringBuffer\\.cpp");
}
