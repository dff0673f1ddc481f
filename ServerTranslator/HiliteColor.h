// Highlight colouring of server output appended to the merge's buffer.
#ifndef QZ_HILITE_COLOR_H
#define QZ_HILITE_COLOR_H

#include <cstdint>

#include "StringBuffer.h"

int AddHiliteColor(StringBuffer* buffer, const char16_t* inPtr, int32_t start, int32_t length);
int EmitText(StringBuffer* buffer, const char16_t* text, int32_t length);
int EmitTag(StringBuffer* buffer, const char16_t* tag, int32_t length);
int32_t FindMatchingClose(int32_t openIndex, const char16_t* inPtr, int32_t limit);

#endif
