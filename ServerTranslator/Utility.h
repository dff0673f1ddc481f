// Text utilities: formatting with a script-supplied format, URL encoding,
// #...# pair search and line-ending matching.
#ifndef QZ_UTILITY_H
#define QZ_UTILITY_H

#include <cstddef>
#include <cstdint>

#include "char16.h"

int _swprintf(char16_t* buffer, size_t size, const char16_t* format, ...);
char16_t* EncodeURL(const char16_t* text, int32_t length);
int FindHashPair(const char16_t* text, int64_t from, int64_t* pStart, int64_t* pEnd);
const char16_t* StringSetLineEndingsToMatch(const char16_t* model, const char16_t* text);

// Case folding and white space as the whole library sees them: units below
// 128 go through the host library's tables, all others are themselves.
inline char16_t FoldUnit(char16_t u) { return u < 128 ? __wlower_mapC[u] : u; }
inline bool IsWhiteUnit(char16_t u) { return u < 128 && (__wctype_mapC[u] & 0x100) != 0; }

// Length of a NUL-terminated text; 0 for null.
size_t TextLength(const char16_t* text);

// True when the first n units of a and b are equal after folding.
bool UnitsEqualFolded(const char16_t* a, const char16_t* b, size_t n);

#endif
