// Append-only run of UTF-16 code units. It adds no terminator of its own, but
// after every successful append one unit past the text is free.
#ifndef QZ_STRING_BUFFER_H
#define QZ_STRING_BUFFER_H

#include <cstdint>

struct StringBuffer {
  char16_t* pData;    // the units; released by whoever owns the buffer (MemFree)
  int32_t nSize;      // units in use; below nCapacity after every append
  int32_t nCapacity;  // units the storage holds
};

int StringBufferCreate(StringBuffer* buffer);
int StringBufferAdd(StringBuffer* buffer, const char16_t* text, int32_t nbytes);
int StringBufferAddUnits(StringBuffer* buffer, const char16_t* text, int64_t nUnits);

#endif
