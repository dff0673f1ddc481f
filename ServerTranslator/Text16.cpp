// UTF-16 text helpers shared by the whole library. Only FindUnits and
// TextAlloc allocate, through the Memory module.
#include "Text16.h"

#include <cstring>

#include "Memory.h"

size_t TextLength(const char16_t* text) {
  if (!text) return 0;
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

bool UnitsEqualFolded(const char16_t* a, const char16_t* b, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (FoldUnit(a[i]) != FoldUnit(b[i])) return false;
  return true;
}

bool TextsEqualFolded(const char16_t* a, const char16_t* b) {
  for (;; ++a, ++b) {
    if (FoldUnit(*a) != FoldUnit(*b)) return false;
    if (*a == 0) return true;
  }
}

bool BeginsWithFolded(const char16_t* text, const char16_t* prefix) {
  for (; *prefix; ++text, ++prefix)
    if (*text == 0 || FoldUnit(*text) != FoldUnit(*prefix)) return false;
  return true;
}

// Knuth-Morris-Pratt keeps the search linear whatever needle a script
// configured. Needles of up to 64 units keep their table on the stack; when
// a longer needle's table cannot be allocated, the plain search gives the
// same answer, only slower.
int64_t FindUnits(const char16_t* text, int64_t n, const char16_t* needle, int64_t m) {
  if (m == 0) return 0;
  if (m > n) return -1;
  int32_t localTable[64];
  int32_t* pTable = localTable;
  if (m > 64) pTable = static_cast<int32_t*>(MemAlloc(static_cast<size_t>(m) * sizeof(int32_t)));
  if (!pTable) {
    for (int64_t i = 0; i + m <= n; ++i)
      if (std::memcmp(text + i, needle, static_cast<size_t>(m) * sizeof(char16_t)) == 0) return i;
    return -1;
  }
  pTable[0] = 0;
  for (int64_t i = 1, k = 0; i < m; ++i) {
    while (k > 0 && needle[i] != needle[k]) k = pTable[k - 1];
    if (needle[i] == needle[k]) ++k;
    pTable[i] = static_cast<int32_t>(k);
  }
  int64_t iFound = -1;
  for (int64_t i = 0, k = 0; i < n; ++i) {
    while (k > 0 && text[i] != needle[k]) k = pTable[k - 1];
    if (text[i] == needle[k]) ++k;
    if (k == m) {
      iFound = i - m + 1;
      break;
    }
  }
  if (pTable != localTable) MemFree(pTable);
  return iFound;
}

char16_t* TextAlloc(int64_t nUnits) {
  if (nUnits < 1) return nullptr;
  // Only a size_t narrower than 64 bits can be too small for the bytes.
  if constexpr (SIZE_MAX / sizeof(char16_t) < static_cast<uint64_t>(INT64_MAX)) {
    if (static_cast<uint64_t>(nUnits) > SIZE_MAX / sizeof(char16_t)) return nullptr;
  }
  return static_cast<char16_t*>(MemAlloc(static_cast<size_t>(nUnits) * sizeof(char16_t)));
}
