// Labels as the library sizes them in the pre pass and reads them back in
// the merge (their texts are in HostContract.h).
#ifndef QZ_LABELS_H
#define QZ_LABELS_H

#include <cstdint>

int64_t LabelledPageSize(int64_t nPage, int32_t nComments, int32_t nAttrs);
int32_t LabelCommentCount();
bool IsLabelNumber(int32_t label);
int64_t LabelAttrCut(const char16_t* serverText, int64_t n, int64_t at);
bool ReadLabelComment(const char16_t* text, int32_t* pLabel);

#endif
