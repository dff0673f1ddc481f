// Growable list of owned NUL-terminated UTF-16 strings. Lookups fold case
// the library's way (units below 128 through the host's lower-case table,
// all others exact); the Exact lookups match whole strings, the others take
// any string that is a prefix of the text.
#include "StringArray.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Memory.h"
#include "Text16.h"

static const int32_t kFirstCapacity = 100;

static void ReleaseStrings(StringArray* array, int32_t from, int32_t to) {
  for (int32_t i = from; i < to; ++i) MemFree(array->pData[i]);
}

// Makes the array usable and empty. Existing storage and capacity stay; the
// strings in use are released. Returns 0 when the first storage cannot be
// allocated.
int StringArrayCreate(StringArray* array) {
  if (array->pData) {
    ReleaseStrings(array, 0, array->nSize);
    array->nSize = 0;
    return 1;
  }
  char16_t** pData = static_cast<char16_t**>(MemAlloc(kFirstCapacity * sizeof(char16_t*)));
  if (!pData) return 0;
  array->pData = pData;
  array->nSize = 0;
  array->nCapacity = kFirstCapacity;
  return 1;
}

// Releases every string and the storage; the array is left as never created.
void StringArrayDestroy(StringArray* array) {
  if (array->pData) ReleaseStrings(array, 0, array->nSize);
  MemFree(array->pData);
  array->pData = nullptr;
  array->nSize = 0;
  array->nCapacity = 0;
}

// Appends a copy of text, doubling the storage when it is full. On failure
// returns 0 and the strings are as they were (a storage grown before the
// copy failed stays grown).
int StringArrayAdd(StringArray* array, const char16_t* text) {
  if (array->nSize >= array->nCapacity) {
    // An array without storage is outside the contract; give it a first
    // block rather than a doubled zero.
    int64_t nNew = array->nCapacity > 0 ? 2 * static_cast<int64_t>(array->nCapacity)
                                        : kFirstCapacity;
    void* pNew = MemAllocArray(array->pData, nNew, sizeof(char16_t*));
    if (!pNew) return 0;
    array->pData = static_cast<char16_t**>(pNew);
    array->nCapacity = static_cast<int32_t>(nNew);
  }
  size_t nLength = TextLength(text);
  char16_t* copy = TextAlloc(static_cast<int64_t>(nLength) + 1);
  if (!copy) return 0;
  if (nLength > 0) std::memcpy(copy, text, nLength * sizeof(char16_t));
  copy[nLength] = 0;
  array->pData[array->nSize++] = copy;
  return 1;
}

int StringArrayPush(StringArray* array, const char16_t* text) {
  return StringArrayAdd(array, text);
}

// Whether string matches text: as a prefix of it, or (bExact) whole.
static bool Matches(const char16_t* string, const char16_t* text, size_t nText, bool bExact) {
  size_t n = TextLength(string);
  if (bExact ? n != nText : n > nText) return false;
  return UnitsEqualFolded(string, text, n);
}

static int32_t FindForward(const StringArray* array, const char16_t* text, bool bExact) {
  size_t nText = TextLength(text);
  for (int32_t i = 0; i < array->nSize; ++i)
    if (Matches(array->pData[i], text, nText, bExact)) return i;
  return -1;
}

static int32_t FindBackward(const StringArray* array, const char16_t* text, bool bExact) {
  size_t nText = TextLength(text);
  for (int32_t i = array->nSize - 1; i >= 0; --i)
    if (Matches(array->pData[i], text, nText, bExact)) return i;
  return -1;
}

// Index of the first string that is a prefix of text (an empty string is a
// prefix of every text), or -1.
int32_t StringArrayFind(const StringArray* array, const char16_t* text) {
  return FindForward(array, text, false);
}

// Index of the last string that is a prefix of text, or -1.
int32_t StringArrayFindLast(const StringArray* array, const char16_t* text) {
  return FindBackward(array, text, false);
}

// Index of the first string equal to text (case folded), or -1.
int32_t StringArrayFindExact(const StringArray* array, const char16_t* text) {
  return FindForward(array, text, true);
}

// Index of the last string equal to text (case folded), or -1.
int32_t StringArrayFindLastExact(const StringArray* array, const char16_t* text) {
  return FindBackward(array, text, true);
}

// Removes the last string and hands it to the caller, who releases it
// (MemFree); null when the array is empty.
char16_t* StringArrayPop(StringArray* array) {
  if (array->nSize < 1) return nullptr;
  return array->pData[--array->nSize];
}

// Removes the last n strings and hands the earliest of them to the caller;
// the others are released. With fewer than n strings it releases them all and
// returns null; n below 1 returns null and changes nothing.
char16_t* StringArrayPopN(StringArray* array, int32_t n) {
  if (n < 1) return nullptr;
  if (array->nSize >= n) {
    int32_t nOld = array->nSize;
    array->nSize -= n;
    ReleaseStrings(array, array->nSize + 1, nOld);
    return array->pData[array->nSize];
  }
  if (array->nSize > 0) ReleaseStrings(array, 0, array->nSize);
  array->nSize = 0;
  return nullptr;
}
