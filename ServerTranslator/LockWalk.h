// The lock stage's walk over the pieces of server output (AddLocks, Main):
// choosing each piece between two labels and appending it as a lock, as the
// page's own tag, or unchanged.
#ifndef QZ_LOCK_WALK_H
#define QZ_LOCK_WALK_H

#include <cstdint>

#include "StringBuffer.h"

// What the walk reads and writes besides the session arrays.
struct LockContext {
  const char16_t* origText;  // the page source
  int64_t nOrig;
  const char16_t* labelFree;  // the server's output without its labels
  int64_t nLabelFree;
  const char16_t* lockBeginFormat;
  int64_t nLockBeginFormat;
  const char16_t* lockEndText;
  int64_t nLockEndText;
  char16_t* valueAttr;  // owned: the translated-value attribute of blank server open tags
  int64_t nValueAttr;
  bool bLockEmptyPrefixedTags;
  bool bLockFormatUsable;  // lockBeginFormat takes one text at most, and nothing else
  bool bHiliteIndex;       // the highlight tag index of this merge is built
  StringBuffer* locked;    // the locked text being built
};

// One piece: the labelled stretch from label to closing in the page, whose
// server output is [s, e) of the label-free text.
struct LockPiece {
  int32_t label;
  int32_t closing;
  int64_t s;
  int64_t e;
};

// Where the walk stands.
struct LockCursor {
  int32_t iLabel;  // next entry of gLabelArray to look at
  bool bPending;   // steps over lost labels are left: pendingStart to pendingClosing
  int32_t pendingStart;
  int32_t pendingClosing;
  int64_t prevEnd;  // end of the previous piece in the label-free text
  int32_t iAttr;    // next entry of gAttrFromServerOffsetArray to move
  int64_t shift;    // the locked text's length minus prevEnd
};

enum LockStep { kLockPiece, kLockDone, kLockFailed };

bool LockContextInit(LockContext* ctx, const char16_t* origText, const char16_t* labelFree, int64_t nLabelFree,
                     const char16_t* lockBeginFormat, const char16_t* lockEndText, const char16_t* translatedValue,
                     bool bLockEmptyPrefixedTags, StringBuffer* locked);
void LockContextRelease(LockContext* ctx);
LockStep LockNextPiece(const LockContext* ctx, LockCursor* cursor, LockPiece* piece);
bool LockAppendPiece(LockContext* ctx, LockCursor* cursor, const LockPiece& piece);
bool LockAppendRest(LockContext* ctx, LockCursor* cursor);

#endif
