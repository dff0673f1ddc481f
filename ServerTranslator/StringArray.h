// Growable list of owned NUL-terminated UTF-16 strings, with case-folding
// lookup by prefix or whole string; also serves as a stack.
#ifndef QZ_STRING_ARRAY_H
#define QZ_STRING_ARRAY_H

#include <cstdint>

struct StringArray {
  char16_t** pData;   // owned storage; every string in use is the array's own copy
  int32_t nSize;      // strings in use
  int32_t nCapacity;  // string pointers the storage holds
};

int StringArrayCreate(StringArray* array);
void StringArrayDestroy(StringArray* array);
int StringArrayAdd(StringArray* array, const char16_t* text);
int StringArrayPush(StringArray* array, const char16_t* text);
int32_t StringArrayFind(const StringArray* array, const char16_t* text);
int32_t StringArrayFindLast(const StringArray* array, const char16_t* text);
int32_t StringArrayFindExact(const StringArray* array, const char16_t* text);
int32_t StringArrayFindLastExact(const StringArray* array, const char16_t* text);
char16_t* StringArrayPop(StringArray* array);
char16_t* StringArrayPopN(StringArray* array, int32_t n);

#endif
