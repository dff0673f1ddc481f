// UTF-16 text helpers shared by the whole library. Only FindUnits and
// TextAlloc allocate, through the Memory module.
#include "Text16.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Memory.h"

// Pages are measured whole several times per translation, so the search
// for the NUL looks at eight units at a time. Aligned 16-byte loads never
// cross into a page of memory that the text does not reach, but they may
// read units before the text's start or past its NUL, within the same
// aligned block: the address sanitizer is told not to flag those.
#if defined(__SSE2__)
__attribute__((no_sanitize_address)) size_t TextLength(const char16_t* text) {
  if (!text) return 0;
  if (reinterpret_cast<uintptr_t>(text) % sizeof(char16_t) != 0) {
    size_t n = 0;
    while (text[n] != 0) ++n;
    return n;
  }
  const __m128i zero = _mm_setzero_si128();
  const uintptr_t offset = reinterpret_cast<uintptr_t>(text) % 16;
  const __m128i* block = reinterpret_cast<const __m128i*>(reinterpret_cast<uintptr_t>(text) - offset);
  // Bits of the units before the text, in the first block, are dropped.
  unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_load_si128(block), zero))) >> offset
                  << offset;
  while (mask == 0) {
    ++block;
    mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_load_si128(block), zero)));
  }
  const char16_t* nul = reinterpret_cast<const char16_t*>(reinterpret_cast<const char*>(block) + __builtin_ctz(mask));
  return static_cast<size_t>(nul - text);
}
#else
size_t TextLength(const char16_t* text) {
  if (!text) return 0;
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}
#endif

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
