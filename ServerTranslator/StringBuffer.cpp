// Append-only run of UTF-16 code units. No terminator is added, but after
// every successful append nSize < nCapacity, so a caller can always add one.
#include "StringBuffer.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include "Assert.h"
#include "Memory.h"

static const int32_t kFirstCapacity = 8192;

// Gives the buffer new, empty storage of 8192 units. Earlier storage is not
// looked at: the owner releases it first. On failure returns 0 and leaves the
// record as it was.
int StringBufferCreate(StringBuffer* buffer) {
  char16_t* pData = static_cast<char16_t*>(MemAlloc(kFirstCapacity * sizeof(char16_t)));
  if (!pData) return 0;
  buffer->pData = pData;
  buffer->nSize = 0;
  buffer->nCapacity = kFirstCapacity;
  return 1;
}

// Appends nbytes code units of text (the name is historical: it counts
// units). When the text would reach the capacity, the capacity becomes
// 2 x capacity + nbytes. On failure (no memory, or a capacity past 32 bits)
// returns 0 and leaves the buffer as it was. text may point into the buffer
// itself.
int StringBufferAdd(StringBuffer* buffer, const char16_t* text, int32_t nbytes) {
  QZ_ASSERT(nbytes >= 0);
  if (nbytes == 0) return 1;
  int64_t nNeeded = static_cast<int64_t>(buffer->nSize) + nbytes;
  if (nNeeded >= buffer->nCapacity) {
    int64_t nNew = 2 * static_cast<int64_t>(buffer->nCapacity) + nbytes;
    // Keeps the free unit after the text even for a buffer never created.
    if (nNew <= nNeeded) nNew = nNeeded + 1;
    // A text inside the old storage moves with it.
    std::less_equal<const char16_t*> le;
    bool bInside = buffer->pData && le(buffer->pData, text) &&
                   std::less<const char16_t*>()(text, buffer->pData + buffer->nCapacity);
    ptrdiff_t nInside = bInside ? text - buffer->pData : 0;
    void* pNew = MemAllocArray(buffer->pData, nNew, sizeof(char16_t));
    if (!pNew) return 0;
    buffer->pData = static_cast<char16_t*>(pNew);
    buffer->nCapacity = static_cast<int32_t>(nNew);
    if (bInside) text = buffer->pData + nInside;
  }
  std::memmove(buffer->pData + buffer->nSize, text, static_cast<size_t>(nbytes) * sizeof(char16_t));
  buffer->nSize += nbytes;
  return 1;
}

// StringBufferAdd for a count computed in 64 bits or measured from a text: a
// count below 0 or beyond what a buffer can hold fails (0) and leaves the
// buffer as it was, where StringBufferAdd would stop the process or wrap.
int StringBufferAddUnits(StringBuffer* buffer, const char16_t* text, int64_t nUnits) {
  if (nUnits < 0 || nUnits > INT32_MAX) return 0;
  return StringBufferAdd(buffer, text, static_cast<int32_t>(nUnits));
}
