// Growable array of 32-bit signed integers: append, stack removal and merge
// selection over ascending arrays. Storage comes from the Memory module; the
// record's fields are public and callers read pData and nSize directly.
#include "IntArray.h"

#include <cstddef>
#include <cstdint>

#include "Assert.h"
#include "Memory.h"

static const int32_t kFirstCapacity = 100;

// Makes the array usable and empty. An array that already has storage keeps
// it (and its capacity), so an array reused page after page only grows.
// Returns 0 when the first storage cannot be allocated; pData stays null.
int IntArrayCreate(IntArray* array) {
  if (array->pData) {
    array->nSize = 0;
    return 1;
  }
  int32_t* pData = static_cast<int32_t*>(MemAlloc(kFirstCapacity * sizeof(int32_t)));
  if (!pData) return 0;
  array->pData = pData;
  array->nSize = 0;
  array->nCapacity = kFirstCapacity;
  return 1;
}

// Releases the storage; the array is left as never created.
void IntArrayDestroy(IntArray* array) {
  MemFree(array->pData);
  array->pData = nullptr;
  array->nSize = 0;
  array->nCapacity = 0;
}

// Appends value, doubling the capacity when the storage is full. On failure
// (no memory, or a capacity past 32 bits) returns 0 and leaves the array as
// it was.
int IntArrayAdd(IntArray* array, int32_t value) {
  if (array->nSize >= array->nCapacity) {
    // An array without storage is outside the contract; give it a first
    // block rather than a doubled zero.
    int64_t nNew = array->nCapacity > 0 ? 2 * static_cast<int64_t>(array->nCapacity)
                                        : kFirstCapacity;
    void* pNew = MemAllocArray(array->pData, nNew, sizeof(int32_t));
    if (!pNew) return 0;
    array->pData = static_cast<int32_t*>(pNew);
    array->nCapacity = static_cast<int32_t>(nNew);
  }
  array->pData[array->nSize++] = value;
  return 1;
}

int IntArrayPush(IntArray* array, int32_t value) { return IntArrayAdd(array, value); }

// Removes and returns the last element; -1 (and no change) when empty, so a
// stored -1 and an empty array look alike.
int32_t IntArrayPop(IntArray* array) {
  if (array->nSize < 1) return -1;
  return array->pData[--array->nSize];
}

// Removes the last n elements and returns the earliest of them. With fewer
// than n elements it empties the array and returns -1; n below 1 returns -1
// and changes nothing.
int32_t IntArrayPopN(IntArray* array, int32_t n) {
  if (n < 1) return -1;
  if (array->nSize >= n) {
    array->nSize -= n;
    return array->pData[array->nSize];
  }
  array->nSize = 0;
  return -1;
}

// The array whose element at its index comes next in ascending order; at
// equal values array2. Callers test the counts first: with no element left
// in either array the process stops.
IntArray* IntArrayGetNext(IntArray* array1, int32_t index1, IntArray* array2, int32_t index2) {
  bool bLeft1 = index1 < array1->nSize;
  bool bLeft2 = index2 < array2->nSize;
  if (bLeft1 && bLeft2) return array1->pData[index1] < array2->pData[index2] ? array1 : array2;
  if (bLeft1) return array1;
  QZ_ASSERT(index2 < array2->nSize);
  return array2;
}

// The array with the smallest next element; among equal values the later in
// argument order. With no element left anywhere the process stops.
IntArray* IntArrayGetNext4(IntArray* array1, int32_t index1, IntArray* array2, int32_t index2,
                           IntArray* array3, int32_t index3, IntArray* array4, int32_t index4) {
  IntArray* arrays[4] = {array1, array2, array3, array4};
  int32_t indexes[4] = {index1, index2, index3, index4};
  IntArray* bestArray = NULL;
  int32_t bestValue = 0;
  for (int i = 0; i < 4; ++i) {
    if (indexes[i] >= arrays[i]->nSize) continue;
    int32_t value = arrays[i]->pData[indexes[i]];
    if (!bestArray || value <= bestValue) {
      bestArray = arrays[i];
      bestValue = value;
    }
  }
  QZ_ASSERT(bestArray != NULL);
  return bestArray;
}
