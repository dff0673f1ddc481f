// The translated-value attribute stage's work (AddAttributes, Main): for
// each labelled tag of the locked text, putting the page's attribute text
// back and adding the translated-value attribute that carries the server's.
#ifndef QZ_ATTR_MERGE_H
#define QZ_ATTR_MERGE_H

#include <cstdint>

// The stage's texts and where it stands in them.
struct AttrMerge {
  const char16_t* origText;  // the page source
  int64_t nOrig;
  const char16_t* locked;  // the locked text
  int64_t nLocked;
  char16_t* outText;  // the merged page being written, outSize units
  char16_t* outPtr;
  int64_t outSize;
  int64_t copyPos;    // first locked-text unit not yet copied
  int64_t readEnd;    // end of the locked text read for the labelled tags so far
  int64_t recordPos;  // next record of gEncodedAttrs
};

int32_t AttrMergeTagCount();
int64_t AttrMergeSize(int64_t nLocked);
bool AttrMergeTag(AttrMerge* merge, int32_t k);
bool AttrMergeRest(AttrMerge* merge);

#endif
