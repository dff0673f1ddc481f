// Text replacement inside elements of one tag name (replaceTextInsideTag).
#ifndef QZ_TEXT_REPLACE_H
#define QZ_TEXT_REPLACE_H

#include <cstdint>

char16_t* StringReplaceTextInsideTag(const char16_t* text, int64_t nText, const char16_t* name, int64_t nName,
                                     const char16_t* search, int64_t nSearch, const char16_t* replacement,
                                     int64_t nReplacement);

#endif
