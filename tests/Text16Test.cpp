// The exact search of the text helpers: it must find what a plain search
// finds, with its table on the stack, on the heap, or without one when the
// heap is out of memory.
#include <random>
#include <string>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Text16.h"

namespace {

using Text16Test = LibraryTest;

TEST_F(Text16Test, FindUnitsAgreesWithAPlainSearch) {
  std::mt19937 random(3);
  auto text = [&](size_t n) {
    std::u16string s(n, u'a');
    for (char16_t& u : s) u = u"aab"[random() % 3];
    return s;
  };
  for (int round = 0; round < 3000; ++round) {
    const std::u16string haystack = text(random() % 200);
    // Needles of up to 70 units: past 64 the table lives on the heap.
    std::u16string needle = text(random() % 71);
    if (round % 2 && needle.size() <= haystack.size()) needle = haystack.substr(random() % (haystack.size() - needle.size() + 1), needle.size());
    const size_t found = haystack.find(needle);
    const int64_t expected = found == std::u16string::npos ? -1 : static_cast<int64_t>(found);
    for (long failAt : {0L, 1L}) {
      FaultFailAt(failAt);
      ASSERT_EQ(FindUnits(haystack.c_str(), haystack.size(), needle.c_str(), needle.size()), expected)
          << "round " << round << " fail at " << failAt;
    }
    FaultFailAt(0);
  }
}

TEST_F(Text16Test, NoTextShortTextsAndNoSize) {
  EXPECT_EQ(TextLength(nullptr), 0u);
  EXPECT_FALSE(BeginsWithFolded(u"ab", u"ABC"));
  EXPECT_TRUE(BeginsWithFolded(u"abc", u"AB"));
  EXPECT_EQ(TextAlloc(0), nullptr);
  EXPECT_EQ(TextAlloc(-1), nullptr);
}

}  // namespace
