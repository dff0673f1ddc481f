// Text utilities: formatting with a script-supplied format, URL encoding,
// #...# pair search and line-ending matching.
#ifndef QZ_UTILITY_H
#define QZ_UTILITY_H

#include <cstddef>
#include <cstdint>

#include "char16.h"

int _swprintf(char16_t* buffer, size_t size, const char16_t* format, ...);
char16_t* EncodeURL(const char16_t* text, int32_t length);
struct StringBuffer;
int EncodeURLAppend(StringBuffer* out, const char16_t* text, int32_t length);
int FindHashPair(const char16_t* text, int64_t from, int64_t* pStart, int64_t* pEnd);
const char16_t* StringSetLineEndingsToMatch(const char16_t* model, const char16_t* text);

#endif
