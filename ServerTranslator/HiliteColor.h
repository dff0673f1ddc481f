// Highlight colouring of server output appended to the merge's buffer.
#ifndef QZ_HILITE_COLOR_H
#define QZ_HILITE_COLOR_H

#include <cstdint>

#include "StringBuffer.h"

int AddHiliteColor(StringBuffer* buffer, const char16_t* inPtr, int32_t start, int32_t length);
int EmitText(StringBuffer* buffer, const char16_t* text, int32_t length);
int EmitTag(StringBuffer* buffer, const char16_t* tag, int32_t length);
int32_t FindMatchingClose(int32_t openIndex, const char16_t* inPtr, int32_t limit);

// One merge's index of the recorded tags over the label-free text inPtr of
// textLength units, used by the two functions above while it exists. Build
// it after the label removal has moved the tag offsets and release it when
// the merge ends, on every path. Returns 0 when memory runs out; nothing is
// then held. HiliteColorEnd may be called when no index exists.
int HiliteColorBegin(const char16_t* inPtr, int32_t textLength);
void HiliteColorEnd();

#endif
