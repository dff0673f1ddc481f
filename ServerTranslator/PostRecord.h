// Post-pass recording: what the scanner callbacks keep about the server's
// output in the session arrays, for the merge.
#ifndef QZ_POST_RECORD_H
#define QZ_POST_RECORD_H

#include <cstdint>

void PostRecordLabelComment(int32_t offset, int32_t length, int32_t label);
void PostRecordOpenTagBegin(int32_t offset, bool bTitle);
void PostRecordCloseTagBegin(int32_t offset, bool bTitle);
void PostRecordTagEnd(int32_t endOffset);
void PostRecordAttribute(const char16_t* name, int32_t nName, const char16_t* value, int32_t nValue);
void PostRecordLabelledTag(int32_t offset, int32_t length, int32_t label);

#endif
