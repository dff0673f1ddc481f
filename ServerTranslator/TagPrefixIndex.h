// The server-tag test by prefix over gTagPrefixes (Session.h), answered by
// an index.
#ifndef QZ_TAG_PREFIX_INDEX_H
#define QZ_TAG_PREFIX_INDEX_H

void TagPrefixIndexStart();
void TagPrefixIndexRelease();
bool TagPrefixIndexMatches(const char16_t* name);

#endif
