// The lock stage's walk. Label comments that came back (gLabelArray, at the
// label-free offsets of gFromServerOffsetArray) are paired into pieces: an
// even label starts one, the next odd label not below it closes it. Each
// piece is appended to the locked text as lock markup carrying the page's
// server code, as the page's own tag where the server produced nothing, or
// unchanged where the output equals the code; the text between pieces is
// copied. The labelled-tag offsets (gAttrFromServerOffsetArray) move into
// the locked text as the walk passes them.
//
// Rules local to this file: label numbers and offsets come from the
// server's output, so each is checked against the array or text it indexes
// before use; a piece that does not fit fails the merge. What a function
// allocates is released before it returns, but for the context's value
// attribute, which LockContextRelease releases.
#include "LockWalk.h"

#include <cstring>

#include "HiliteColor.h"
#include "Labels.h"
#include "Memory.h"
#include "Session.h"
#include "Text16.h"
#include "Utility.h"

namespace {

// Kind codes of label places that the walk tells apart.
enum : int32_t { kPlaceServerOpenTag = 1, kPlaceServerCloseTag = 2 };

// True when the script's lock format takes at most one text and nothing
// else: "%s" or "%ls", and "%%". Any other conversion would read an argument
// that is not there, so a lock made with such a format fails the merge; a
// page that needs no lock never reads the format and merges all the same.
bool LockFormatIsUsable(const char16_t* format) {
  int nTexts = 0;
  for (size_t i = 0; format[i] != 0; ++i) {
    if (format[i] != u'%') continue;
    if (format[i + 1] == u'%') {
      ++i;
    } else if (format[i + 1] == u's') {
      ++nTexts;
      ++i;
    } else if (format[i + 1] == u'l' && format[i + 2] == u's') {
      ++nTexts;
      i += 2;
    } else {
      return false;
    }
  }
  return nTexts <= 1;
}

// " qzTranslatedValue="<translatedValue>"", or null when memory runs out.
char16_t* FormatValueAttr(const char16_t* translatedValue, int64_t* pLength) {
  static const char16_t* const kFormat = char16_literal(u" qzTranslatedValue=\"%ls\"");
  const int64_t nSize =
      static_cast<int64_t>(TextLength(kFormat)) + static_cast<int64_t>(TextLength(translatedValue)) + 1;
  char16_t* text = TextAlloc(nSize);
  if (!text) return nullptr;
  char16_swprintf(text, static_cast<size_t>(nSize), kFormat, translatedValue);
  *pLength = static_cast<int64_t>(TextLength(text));
  return text;
}

bool IsBlank(const char16_t* text, int64_t n) {
  for (int64_t i = 0; i < n; ++i)
    if (!IsWhiteUnit(text[i])) return false;
  return true;
}

// The five qz: tags that keep their tag form even when
// lockEmptyPrefixedTags asks prefixed tags to be locked.
bool IsKeptQzTag(const char16_t* name, int64_t n) {
  switch (n) {
    case 9:
      return UnitsEqualFolded(name, char16_literal(u"qz:insert"), 9) ||
             UnitsEqualFolded(name, char16_literal(u"qz:update"), 9) ||
             UnitsEqualFolded(name, char16_literal(u"qz:delete"), 9);
    case 10: return UnitsEqualFolded(name, char16_literal(u"qz:dataset"), 10);
    case 11: return UnitsEqualFolded(name, char16_literal(u"qz:pagebind"), 11);
    default: return false;
  }
}

bool Append(LockContext* ctx, const char16_t* text, int64_t n) { return StringBufferAddUnits(ctx->locked, text, n); }

enum TagForm { kTagFormFailed, kTagFormDone, kTagFormDeclined };

// A blank server open tag written as the page has it, with the
// translated-value attribute after its name. Declines (the piece is then
// locked) when lockEmptyPrefixedTags locks it, or when the page text at the
// label place is not the tag that was scanned.
TagForm AppendTagForm(LockContext* ctx, int32_t label, int64_t o) {
  const char16_t* origText = ctx->origText;
  const int64_t copyEnd = gOffsetArray.pData[label + 1];
  if (origText[o] != u'<') return kTagFormDeclined;
  int64_t nameStart = o + 1;
  while (nameStart < copyEnd && IsWhiteUnit(origText[nameStart])) ++nameStart;
  int64_t attrBlock = nameStart;
  while (attrBlock < copyEnd && origText[attrBlock] != u'>' && !IsWhiteUnit(origText[attrBlock])) ++attrBlock;
  if (attrBlock >= copyEnd) return kTagFormDeclined;
  if (ctx->bLockEmptyPrefixedTags) {
    const int64_t nName = attrBlock - nameStart;
    bool bColon = false;
    for (int64_t i = 0; i < nName && !bColon; ++i) bColon = origText[nameStart + i] == u':';
    if (bColon && !IsKeptQzTag(origText + nameStart, nName)) return kTagFormDeclined;
  }
  if (!Append(ctx, origText + o, attrBlock - o) || !Append(ctx, ctx->valueAttr, ctx->nValueAttr) ||
      !Append(ctx, origText + attrBlock, copyEnd - attrBlock))
    return kTagFormFailed;
  return kTagFormDone;
}

// True when the server open tag at o is one whose output stays uncoloured:
// names beginning with asp:datagrid, asp:datalist or form.
bool IsUncolouredTag(const char16_t* origText, int64_t o, int64_t end) {
  if (origText[o] != u'<') return false;
  int64_t n = o + 1;
  while (n < end && IsWhiteUnit(origText[n])) ++n;
  if (n + 12 < end && (UnitsEqualFolded(origText + n, char16_literal(u"asp:datagrid"), 12) ||
                       UnitsEqualFolded(origText + n, char16_literal(u"asp:datalist"), 12)))
    return true;
  return n + 4 < end && UnitsEqualFolded(origText + n, char16_literal(u"form"), 4);
}

// The lock opening: the script's format filled with the URL-encoded code,
// as the library's formatter fills it (Utility's _swprintf): "%%" gives
// "%", and "%s" or "%ls" the code; since that formatter reads every "%s" as
// "%ls", also one whose "%" ends a "%%", "%%s" gives "%ls". The format is
// usable (LockFormatIsUsable), so these are the only conversions in it.
bool AppendLockOpening(LockContext* ctx, int64_t o, int64_t nCode) {
  if (!ctx->bLockFormatUsable) return false;
  static const char16_t kPercentLs[] = u"%ls";
  const char16_t* format = ctx->lockBeginFormat;
  bool bOk = true;
  int64_t from = 0, i = 0;
  while (bOk && format[i] != 0) {
    if (format[i] != u'%') {
      ++i;
      continue;
    }
    bOk = Append(ctx, format + from, i - from);
    if (format[i + 1] == u'%') {
      const bool bPercentS = format[i + 2] == u's';
      bOk = bOk && (bPercentS ? Append(ctx, kPercentLs, 3) : Append(ctx, format + i, 1));
      i += bPercentS ? 3 : 2;
    } else {
      bOk = bOk && EncodeURLAppend(ctx->locked, ctx->origText + o, static_cast<int32_t>(nCode));
      i += format[i + 1] == u's' ? 2 : 3;
    }
    from = i;
  }
  return bOk && Append(ctx, format + from, i - from);
}

// The piece's output with highlight markup; the merge's tag index is built
// at the first piece that needs it.
bool AppendColoured(LockContext* ctx, int64_t s, int64_t nOut) {
  if (!ctx->bHiliteIndex) {
    if (!HiliteColorBegin(ctx->labelFree, static_cast<int32_t>(ctx->nLabelFree))) return false;
    ctx->bHiliteIndex = true;
  }
  return AddHiliteColor(ctx->locked, ctx->labelFree, static_cast<int32_t>(s), static_cast<int32_t>(nOut));
}

// The piece locked with the page's code origText[o, end): the opening, the
// code itself (hidden) for a directive or other code that is not a tag, the
// output (coloured, unless it comes from a grid, a list or a form), the
// closing text.
bool AppendLock(LockContext* ctx, const LockPiece& piece, int32_t kind, int64_t o, int64_t end) {
  static const char16_t* const kInvisibleOpen = char16_literal(u"<qz:invisible>");
  static const char16_t* const kInvisibleClose = char16_literal(u"</qz:invisible>");
  const int64_t nCode = end - o;
  const int64_t nOut = piece.e - piece.s;
  if (!AppendLockOpening(ctx, o, nCode)) return false;
  const bool bCode = kind != kPlaceServerOpenTag && kind != kPlaceServerCloseTag;
  if (piece.label % 2 == 0 && piece.closing == piece.label + 1 && nCode > 0 && bCode) {
    if (!Append(ctx, kInvisibleOpen, 14) || !Append(ctx, ctx->origText + o, nCode) || !Append(ctx, kInvisibleClose, 15))
      return false;
  }
  const bool bPlain = kind == kPlaceServerOpenTag && IsUncolouredTag(ctx->origText, o, end);
  if (!(bPlain ? Append(ctx, ctx->labelFree + piece.s, nOut) : AppendColoured(ctx, piece.s, nOut))) return false;
  return Append(ctx, ctx->lockEndText, ctx->nLockEndText);
}

// Fails when an append runs out of memory, when the piece needs a lock and
// the lock format is not usable, or when the stretch's label places do not
// lie in order inside the page text (a page other than the one scanned).
bool AppendPiece(LockContext* ctx, const LockPiece& piece) {
  const int64_t o = gOffsetArray.pData[piece.label];
  const int64_t end = gOffsetArray.pData[piece.closing];
  const int32_t kind = gOffsetTypeArray.pData[piece.label];
  if (o < 0 || o > end || end > ctx->nOrig) return false;
  const int64_t nCode = end - o;
  const int64_t nOut = piece.e - piece.s;
  const char16_t* output = ctx->labelFree + piece.s;
  if (IsBlank(output, nOut)) {
    if (kind == kPlaceServerOpenTag && piece.closing == piece.label + 1) {
      TagForm form = AppendTagForm(ctx, piece.label, o);
      if (form != kTagFormDeclined) return form == kTagFormDone;
    } else if (kind == kPlaceServerCloseTag) {
      return Append(ctx, ctx->origText + o, nCode);
    }
  }
  if (nCode == nOut && std::memcmp(output, ctx->origText + o, static_cast<size_t>(nOut) * sizeof(char16_t)) == 0)
    return Append(ctx, output, nOut);
  return AppendLock(ctx, piece, kind, o, end);
}

// Moves the labelled-tag offsets that lie before limit by the cursor's
// shift; the cursor stops at the first one not moved.
void MoveTags(LockCursor* cursor, int64_t limit) {
  IntArray* attrs = &gAttrFromServerOffsetArray;
  for (; cursor->iAttr < attrs->nSize && attrs->pData[cursor->iAttr] < limit; ++cursor->iAttr)
    attrs->pData[cursor->iAttr] = IntArrayClamp(attrs->pData[cursor->iAttr] + cursor->shift);
}

// The first odd label from index q on that is not below label, or nLabels.
int32_t FindClosing(int32_t q, int32_t nLabels, int32_t label) {
  const int32_t* pLabel = gLabelArray.pData;
  while (q < nLabels && !(IsLabelNumber(pLabel[q]) && pLabel[q] % 2 == 1 && pLabel[q] >= label)) ++q;
  return q;
}

}  // namespace

// Prepares a walk that appends to locked: formats the translated-value
// attribute and checks the lock format. False when memory runs out; the
// context holds nothing then.
bool LockContextInit(LockContext* ctx, const char16_t* origText, const char16_t* labelFree, int64_t nLabelFree,
                     const char16_t* lockBeginFormat, const char16_t* lockEndText, const char16_t* translatedValue,
                     bool bLockEmptyPrefixedTags, StringBuffer* locked) {
  *ctx = LockContext{};
  ctx->origText = origText;
  ctx->nOrig = static_cast<int64_t>(TextLength(origText));
  ctx->labelFree = labelFree;
  ctx->nLabelFree = nLabelFree;
  ctx->lockBeginFormat = lockBeginFormat;
  ctx->nLockBeginFormat = static_cast<int64_t>(TextLength(lockBeginFormat));
  ctx->bLockFormatUsable = LockFormatIsUsable(lockBeginFormat);
  ctx->lockEndText = lockEndText;
  ctx->nLockEndText = static_cast<int64_t>(TextLength(lockEndText));
  ctx->bLockEmptyPrefixedTags = bLockEmptyPrefixedTags;
  ctx->locked = locked;
  ctx->valueAttr = FormatValueAttr(translatedValue, &ctx->nValueAttr);
  return ctx->valueAttr != nullptr;
}

// Releases what the walk made besides the locked text: the value attribute
// and the merge's highlight tag index.
void LockContextRelease(LockContext* ctx) {
  MemFree(ctx->valueAttr);
  ctx->valueAttr = nullptr;
  HiliteColorEnd();
}

// The next piece. An empty piece between labels that are not neighbours
// (the labels between were lost) is taken one label step at a time, so that
// the page text between two labelled stretches gets a piece of its own.
// kLockDone when no start label is left; kLockFailed when a start label has
// no closing label after it or the piece does not lie in order inside the
// label-free text.
LockStep LockNextPiece(const LockContext* ctx, LockCursor* cursor, LockPiece* piece) {
  const int32_t nLabels = LabelCommentCount();
  const int32_t* pLabel = gLabelArray.pData;
  const int32_t* pOffset = gFromServerOffsetArray.pData;
  if (cursor->bPending) {
    *piece = LockPiece{cursor->pendingStart, cursor->pendingClosing, cursor->prevEnd, cursor->prevEnd};
    cursor->bPending = false;
  } else {
    int32_t& p = cursor->iLabel;
    while (p < nLabels && !(IsLabelNumber(pLabel[p]) && pLabel[p] % 2 == 0)) ++p;
    if (p >= nLabels) return kLockDone;
    const int32_t label = pLabel[p];
    const int64_t s = pOffset[p];
    const int32_t q = FindClosing(p + 1, nLabels, label);
    if (q >= nLabels) return kLockFailed;
    if (q - 1 > p && pLabel[q - 1] == label && pOffset[q - 1] > s) {
      // The server repeated the start label: the piece ends there, and the
      // repeated label starts the next one.
      *piece = LockPiece{label, label, s, pOffset[q - 1]};
      p = q - 1;
    } else {
      *piece = LockPiece{label, pLabel[q], s, pOffset[q]};
      p = q + 1;
    }
  }
  if (piece->s < cursor->prevEnd || piece->s > piece->e || piece->e > ctx->nLabelFree) return kLockFailed;
  if (piece->s == piece->e && piece->closing > piece->label + 1) {
    cursor->bPending = true;
    cursor->pendingStart = piece->label + 1;
    cursor->pendingClosing = piece->closing;
    piece->closing = piece->label + 1;
  }
  return kLockPiece;
}

// Appends the label-free text before the piece and the piece, then moves
// the labelled tags: those before it by the growth so far, those inside it
// to -1 (their text was replaced). False as the piece's append fails.
bool LockAppendPiece(LockContext* ctx, LockCursor* cursor, const LockPiece& piece) {
  if (!Append(ctx, ctx->labelFree + cursor->prevEnd, piece.s - cursor->prevEnd)) return false;
  if (!AppendPiece(ctx, piece)) return false;
  MoveTags(cursor, piece.s);
  cursor->shift = ctx->locked->nSize - piece.e;
  IntArray* attrs = &gAttrFromServerOffsetArray;
  for (; cursor->iAttr < attrs->nSize && attrs->pData[cursor->iAttr] < piece.e; ++cursor->iAttr)
    attrs->pData[cursor->iAttr] = -1;
  cursor->prevEnd = piece.e;
  return true;
}

// Appends the label-free text after the last piece and the NUL, and moves
// the labelled tags there. False when memory runs out.
bool LockAppendRest(LockContext* ctx, LockCursor* cursor) {
  static const char16_t kNul[1] = {0};
  MoveTags(cursor, INT64_MAX);
  if (!Append(ctx, ctx->labelFree + cursor->prevEnd, ctx->nLabelFree - cursor->prevEnd) || !Append(ctx, kNul, 1))
    return false;
  return ctx->locked->pData != nullptr;
}
