// Growable array of 32-bit signed integers, with stack removal and merge
// selection over two or four ascending arrays.
#ifndef QZ_INT_ARRAY_H
#define QZ_INT_ARRAY_H

#include <cstdint>

struct IntArray {
  int32_t* pData;     // owned elements; null when the array has no storage
  int32_t nSize;      // elements in use, at most nCapacity
  int32_t nCapacity;  // elements the storage holds
};

// A value computed in 64 bits as it is stored in an element: held at the
// int32 range rather than wrapped into it.
inline int32_t IntArrayClamp(int64_t value) {
  return value < INT32_MIN ? INT32_MIN : value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
}

int IntArrayCreate(IntArray* array);
void IntArrayDestroy(IntArray* array);
int IntArrayAdd(IntArray* array, int32_t value);
int IntArrayPush(IntArray* array, int32_t value);
int32_t IntArrayPop(IntArray* array);
int32_t IntArrayPopN(IntArray* array, int32_t n);
IntArray* IntArrayGetNext(IntArray* array1, int32_t index1, IntArray* array2, int32_t index2);
IntArray* IntArrayGetNext4(IntArray* array1, int32_t index1, IntArray* array2, int32_t index2,
                           IntArray* array3, int32_t index3, IntArray* array4, int32_t index4);

#endif
