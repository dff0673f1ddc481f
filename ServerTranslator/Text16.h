// UTF-16 text as the whole library reads it: lengths, the two character
// classes it tests, one family of case-folded comparisons, an exact search,
// and new texts of a counted size.
//
// Case folding maps units below 128 through the host library's lower-case
// table and leaves all other units as they are; the classes look only at
// units below 128, through its class table.
#ifndef QZ_TEXT16_H
#define QZ_TEXT16_H

#include <cstddef>
#include <cstdint>

#include "char16.h"

inline char16_t FoldUnit(char16_t u) { return u < 128 ? __wlower_mapC[u] : u; }

// White space: it ends a tag name, is skipped inside tags, and text made
// only of it is not highlighted.
inline bool IsWhiteUnit(char16_t u) { return u < 128 && (__wctype_mapC[u] & kChar16Space) != 0; }

// Control, punctuation or white space: what URL encoding escapes, but for a
// few safe punctuation units.
inline bool IsControlPunctOrWhite(char16_t u) {
  return u < 128 && (__wctype_mapC[u] & (kChar16Control | kChar16Punct | kChar16Space)) != 0;
}

// Units before the NUL; 0 for null.
size_t TextLength(const char16_t* text);

// The first n units of a and b are equal after folding; NUL units compare
// like any other, so the caller vouches that both have n units.
bool UnitsEqualFolded(const char16_t* a, const char16_t* b, size_t n);

// Whole NUL-terminated texts equal after folding.
bool TextsEqualFolded(const char16_t* a, const char16_t* b);

// text begins with the whole of prefix, folded; a shorter text never does.
bool BeginsWithFolded(const char16_t* text, const char16_t* prefix);

// First index of needle (m units) in text (n units), exact units, or -1; an
// empty needle is found at 0. Linear in n + m whatever the needle.
int64_t FindUnits(const char16_t* text, int64_t n, const char16_t* needle, int64_t m);

// A new text of nUnits code units for the caller to release with MemFree;
// null when memory runs out or nUnits is not a size that can be allocated.
char16_t* TextAlloc(int64_t nUnits);

#endif
