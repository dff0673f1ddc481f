// The pre pass: the settings the translator script gives to
// beginPreTranslate, and the handlers that find server markup in directives,
// text runs and tags. What they find becomes label places (gOffsetArray with
// gOffsetTypeArray, gAttrOffsetArray with gAttrLengthArray), which
// endPreTranslate turns into labels. The open-tag stack and the server-tag
// test by prefix are kept by OpenTagStack and TagPrefixIndex.
//
// Rules local to this file:
// - A label place is the pair (offset, kind code); both arrays grow together
//   or not at all, so they always have equal length.
// - No handler fails and none stops the process: an append that runs out of
//   memory loses that entry or place, and events the scanner should not send
//   (an attribute with no open tag, a close-tag end with no close tag) are
//   ignored.
#include "Pre.h"

#include <cstring>

#include "Memory.h"
#include "OpenTagStack.h"
#include "Session.h"
#include "TagPrefixIndex.h"
#include "Text16.h"
#include "Utility.h"

char16_t* gDirStartChars;
char16_t* gDirEndChars;
StringArray gTagPrefixes;
StringArray gTagsContainingNonHtml;
StringArray gAttrsForServerTags;
StringArray gAttrValuesForServerTags;
IntArray gAttrsDenoteNonHtmlTags;
StringArray gOpenTags;
IntArray gOpenTagOffsets;
IntArray gOpenTagIsServerTag;
IntArray gOpenTagIsNonHtmlServerTag;
int64_t gInsideNonHtml;
int32_t gInsideZboutput;
uint8_t gbHasAttrs;
int32_t gZboutputStartOffset;
uint8_t gZboutputStartHasAttrs;

namespace {

// Kind codes of label places.
enum : int32_t {
  kPlaceServerOpenTag = 1,
  kPlaceServerCloseTag = 2,
  kPlaceExpression = 3,
  kPlaceZboutputExpression = 4,
  kPlaceDirective = 5,
  kPlaceEnd = 6
};

// Which tag the scanner is inside, and so whose entry is on top of the stack:
// attributes and an open tag's end belong to kOpenTag, a close tag's end to
// kCloseTag. kNoTag when the begin's entry could not be pushed or the tag has
// ended; the end handlers then have nothing of their own to read or pop.
enum PendingTag { kNoTag, kOpenTag, kCloseTag };
PendingTag sPendingTag = kNoTag;

// ---------------------------------------------------------------------------
// Label places

// Records (offset, code). When either append fails the place is lost whole.
// Arrays without storage (no session open) record nothing. Only a host that
// reports offsets past the page can make a place beyond the int32 range; it
// is held at the range's end, where endPreTranslate finds it past the page
// and refuses it, instead of wrapping into the page.
void RecordPlace(int64_t offset, int32_t code) {
  if (!gOffsetArray.pData || !gOffsetTypeArray.pData) return;
  if (!IntArrayAdd(&gOffsetArray, IntArrayClamp(offset))) return;
  if (!IntArrayAdd(&gOffsetTypeArray, code)) --gOffsetArray.nSize;
}

void RecordAttrPlace(int64_t offset, int64_t length) {
  if (!gAttrOffsetArray.pData || !gAttrLengthArray.pData) return;
  if (!IntArrayAdd(&gAttrOffsetArray, IntArrayClamp(offset))) return;
  if (!IntArrayAdd(&gAttrLengthArray, IntArrayClamp(length))) --gAttrOffsetArray.nSize;
}

// Drops the places recorded after the first nKeep.
void CutPlaces(int32_t nKeep) {
  if (gOffsetArray.nSize > nKeep) gOffsetArray.nSize = nKeep;
  if (gOffsetTypeArray.nSize > nKeep) gOffsetTypeArray.nSize = nKeep;
}

// ---------------------------------------------------------------------------
// Server tags

bool IsZboutput(const char16_t* name) { return TextsEqualFolded(name, char16_literal(u"zboutput")); }

// A zboutput block whose content is exactly one #...# expression ends with
// five places: code 1 at the block's tag, its code 6, code 3 at the same
// offset, the expression's code 6 and code 2 at the same offset as that.
// They become one code-4 place at the block's tag; the close tag's end
// then records its code 6.
void CollapseZboutput() {
  int32_t n = gOffsetArray.nSize;
  if (n < 5 || gOffsetTypeArray.nSize != n || gZboutputStartHasAttrs) return;
  const int32_t* pOffsets = gOffsetArray.pData;
  int32_t* pCodes = gOffsetTypeArray.pData;
  if (pOffsets[n - 2] != pOffsets[n - 1] || pOffsets[n - 4] != pOffsets[n - 3] ||
      pOffsets[n - 5] != gZboutputStartOffset || pCodes[n - 3] != kPlaceExpression)
    return;
  CutPlaces(n - 4);
  pCodes[n - 5] = kPlaceZboutputExpression;
}

// ---------------------------------------------------------------------------
// Script lists

// Opens the script list argv[index]. Fails when it is neither null nor an
// array, or cannot be inspected; otherwise *pObject is the array (null when
// there is nothing to read) and *pLength the number of elements to read.
int OpenScriptList(void* cx, ScriptValue* argv, int index, void** pObject, int64_t* pLength) {
  *pObject = nullptr;
  *pLength = 0;
  ValueToObjectOp toObject = HostOp<ValueToObjectOp>(kSlotValueToObject);
  if (!toObject) return 0;
  void* object = nullptr;
  if (!toObject(cx, argv[index], &object)) return 0;
  if (!object) return 1;
  ClassNameOp className = HostOp<ClassNameOp>(kSlotClassName);
  if (!className) return 0;
  const char* name = className(object);
  if (!name || std::strcmp(name, "Array") != 0) return 0;
  ArrayLengthOp arrayLength = HostOp<ArrayLengthOp>(kSlotArrayLength);
  if (!arrayLength) return 1;
  int64_t n = arrayLength(cx, object);
  if (n <= 0) return 1;
  // Elements are fetched by 32-bit index.
  if (n > static_cast<int64_t>(INT32_MAX) + 1) n = static_cast<int64_t>(INT32_MAX) + 1;
  *pObject = object;
  *pLength = n;
  return 1;
}

bool FetchElement(void* cx, void* object, int64_t i, ScriptValue* pValue) {
  ArrayElementOp element = HostOp<ArrayElementOp>(kSlotArrayElement);
  return element && element(cx, object, static_cast<int32_t>(i), pValue);
}

// Copies the text of v into a new NUL-terminated text at *pTarget. A host
// without value to string, or a value it cannot convert, gives an empty
// text: the pass then runs with no configured directive characters. Fails
// only when memory runs out, leaving *pTarget null.
int CopyArgumentText(void* cx, ScriptValue v, char16_t** pTarget) {
  int32_t n = 0;
  const char16_t* text = HostValueToString(cx, v, &n);
  if (!text || n < 0) n = 0;
  char16_t* copy = TextAlloc(int64_t{n} + 1);
  if (!copy) return 0;
  int32_t i = 0;
  for (; i < n && text[i]; ++i) copy[i] = text[i];
  copy[i] = 0;
  *pTarget = copy;
  return 1;
}

// ---------------------------------------------------------------------------
// Directives

// A taglib directive declares a prefix: its tags become server tags. The
// prefix is the value of the first "prefix" (or, when there is none, the
// first "PREFIX") in the text, quotes dropped, with ":" appended.
void DeclareTaglibPrefix(const char16_t* text, int64_t length) {
  if (text[0] != u'<' || text[1] != u'%' || text[2] != u'@') return;
  char16_t word[128];
  if (char16_swscanf(text + 3, char16_literal(u" %120ls"), word) != 1) return;
  if (!TextsEqualFolded(word, char16_literal(u"taglib"))) return;
  int64_t iWord = FindUnits(text, length, char16_literal(u"prefix"), 6);
  if (iWord < 0) iWord = FindUnits(text, length, char16_literal(u"PREFIX"), 6);
  if (iWord < 0) return;
  char16_t value[128];
  if (char16_swscanf(text + iWord + 6, char16_literal(u" = %120l[^ %]"), value, 128) != 1) return;
  const char16_t* pStart = value;
  size_t n = TextLength(value);
  // The scan stores at least one unit.
  if (value[0] == u'\'' || value[0] == u'"') {
    ++pStart;
    --n;
  }
  if (n > 0 && (pStart[n - 1] == u'\'' || pStart[n - 1] == u'"')) --n;
  char16_t prefix[130];
  std::memcpy(prefix, pStart, n * sizeof(char16_t));
  prefix[n] = u':';
  prefix[n + 1] = 0;
  if (gTagPrefixes.pData) StringArrayAdd(&gTagPrefixes, prefix);
}

// The script's directive characters: both configured, both fit in the
// directive, both occur in it (anywhere, in any order).
bool IsConfiguredDirective(const char16_t* text, int64_t length) {
  if (!gDirStartChars || !gDirEndChars) return false;
  int64_t nStart = static_cast<int64_t>(TextLength(gDirStartChars));
  int64_t nEnd = static_cast<int64_t>(TextLength(gDirEndChars));
  if (nStart == 0 || nEnd == 0 || nStart + nEnd > length) return false;
  return FindUnits(text, length, gDirStartChars, nStart) >= 0 &&
         FindUnits(text, length, gDirEndChars, nEnd) >= 0;
}

bool ContainsUnits(const char16_t* text, int64_t n, const char16_t* needle) {
  return FindUnits(text, n, needle, static_cast<int64_t>(TextLength(needle))) >= 0;
}

bool IsInclude(const char16_t* text, int64_t length) {
  return ContainsUnits(text, length, char16_literal(u"#include")) ||
         ContainsUnits(text, length, char16_literal(u"#Include")) ||
         ContainsUnits(text, length, char16_literal(u"#INCLUDE"));
}

}  // namespace

// ---------------------------------------------------------------------------
// Settings

// Opens a pre pass: creates or empties the nine lists, then reads the
// script's settings (4 or 7 arguments). A pass that is still open (no
// endPreTranslate since the last beginPreTranslate) is refused with 0 and
// left exactly as it was. Any other failure also returns 0 and leaves what it
// made for PreCleanup (called by endPreTranslate) to release.
int PreInitialize(void* cx, uint32_t argc, ScriptValue* argv) {
  if (gDirStartChars != nullptr || gDirEndChars != nullptr || gInsideNonHtml != 0 || gInsideZboutput != 0)
    return 0;
  sPendingTag = kNoTag;
  OpenTagStackRelease();
  TagPrefixIndexRelease();
  if (!StringArrayCreate(&gTagPrefixes) || !StringArrayCreate(&gTagsContainingNonHtml) ||
      !StringArrayCreate(&gAttrsForServerTags) || !StringArrayCreate(&gAttrValuesForServerTags) ||
      !IntArrayCreate(&gAttrsDenoteNonHtmlTags) || !StringArrayCreate(&gOpenTags) ||
      !IntArrayCreate(&gOpenTagOffsets) || !IntArrayCreate(&gOpenTagIsServerTag) ||
      !IntArrayCreate(&gOpenTagIsNonHtmlServerTag))
    return 0;
  OpenTagStackStart();
  TagPrefixIndexStart();
  if (argc != 4 && argc != 7) return 0;
  if (!CopyArgumentText(cx, argv[0], &gDirStartChars)) return 0;
  if (!CopyArgumentText(cx, argv[1], &gDirEndChars)) return 0;
  if (!GetJSStringArray(cx, nullptr, argv, 2, &gTagPrefixes)) return 0;
  if (!GetJSStringArray(cx, nullptr, argv, 3, &gTagsContainingNonHtml)) return 0;
  if (argc == 7) {
    if (!GetJSStringArray(cx, nullptr, argv, 4, &gAttrsForServerTags)) return 0;
    if (!GetJSStringArray(cx, nullptr, argv, 5, &gAttrValuesForServerTags)) return 0;
    if (!GetJSIntArray(cx, nullptr, argv, 6, &gAttrsDenoteNonHtmlTags)) return 0;
  }
  StringArrayAdd(&gTagPrefixes, char16_literal(u"script"));
  StringArrayAdd(&gTagPrefixes, char16_literal(u"style"));
  StringArrayAdd(&gTagsContainingNonHtml, char16_literal(u"script"));
  StringArrayAdd(&gTagsContainingNonHtml, char16_literal(u"style"));
  return 1;
}

// Appends the text of every element of the script list argv[index] to
// target; a null list adds nothing. Fails (0) when the list is neither null
// nor an array. Elements that cannot be fetched or converted, and appends
// that run out of memory, are skipped.
int GetJSStringArray(void* cx, void*, ScriptValue* argv, int index, StringArray* target) {
  void* object;
  int64_t n;
  if (!OpenScriptList(cx, argv, index, &object, &n)) return 0;
  for (int64_t i = 0; i < n; ++i) {
    ScriptValue v;
    if (!FetchElement(cx, object, i, &v)) continue;
    int32_t length;
    const char16_t* text = HostValueToString(cx, v, &length);
    if (text) StringArrayAdd(target, text);
  }
  return 1;
}

// The same for integers. An element that converts to nothing repeats the
// value before it (0 for the first): one variable carries across elements.
int GetJSIntArray(void* cx, void*, ScriptValue* argv, int index, IntArray* target) {
  void* object;
  int64_t n;
  if (!OpenScriptList(cx, argv, index, &object, &n)) return 0;
  intptr_t value = 0;
  for (int64_t i = 0; i < n; ++i) {
    ScriptValue v;
    if (!FetchElement(cx, object, i, &v)) continue;
    HostValueToInteger(cx, v, &value);
    IntArrayAdd(target, static_cast<int32_t>(value));
  }
  return 1;
}

// Closes the pass: releases the directive texts and the two name lists and
// zeroes both depth counters, so the next PreInitialize finds its entry
// conditions true. The rule lists and the open-tag stack keep their contents
// until then. Always 1.
int PreCleanup() {
  MemFree(gDirStartChars);
  gDirStartChars = nullptr;
  MemFree(gDirEndChars);
  gDirEndChars = nullptr;
  StringArrayDestroy(&gTagPrefixes);
  StringArrayDestroy(&gTagsContainingNonHtml);
  gInsideNonHtml = 0;
  gInsideZboutput = 0;
  OpenTagStackRelease();
  TagPrefixIndexRelease();
  sPendingTag = kNoTag;
  return 1;
}

// ---------------------------------------------------------------------------
// Directives and text runs

// Registers a taglib prefix (also inside non-HTML content), then labels the
// directive as one stretch (codes 5 and 6) when it is a server directive by
// the configured characters or an include. Always 1. The text is never
// null: the native skips a directive the host cannot convert.
int PreDirective(const char16_t* text, int32_t length, int32_t offset) {
  int64_t n = length < 0 ? 0 : length;
  DeclareTaglibPrefix(text, n);
  if (gInsideNonHtml != 0) return 1;
  if (!IsConfiguredDirective(text, n) && !IsInclude(text, n)) return 1;
  RecordPlace(offset, kPlaceDirective);
  RecordPlace(static_cast<int64_t>(offset) + n, kPlaceEnd);
  return 1;
}

// Inside a zboutput block (and outside non-HTML content) labels every #...#
// expression of the text run (codes 3 and 6); when a "#" after the first
// unit stays unpaired, the whole run is labelled as one stretch (5 and 6)
// instead. Returns 0 only for a wrong argument count inside a block. A text
// the host cannot convert holds no expression and records nothing.
int PreText(void* cx, uint32_t argc, ScriptValue* argv) {
  if (gInsideNonHtml > 0 || gInsideZboutput == 0) return 1;
  if (argc != 2) return 0;
  int32_t length = 0;
  const char16_t* text = HostValueToString(cx, argv[0], &length);
  intptr_t value = 0;
  HostValueToInteger(cx, argv[1], &value);
  // Like every offset from the host, only its low 32 bits count.
  const int64_t offset = static_cast<int32_t>(value);
  if (!text) return 1;
  int32_t nSaved = gOffsetArray.nSize;
  int64_t iStart = -1;
  int64_t iEnd = -1;
  // Each search starts past the last pair, so the run is walked once.
  for (int64_t iFrom = 0; FindHashPair(text, iFrom, &iStart, &iEnd); iFrom = iEnd + 1) {
    RecordPlace(offset + iStart, kPlaceExpression);
    RecordPlace(offset + iEnd + 1, kPlaceEnd);
  }
  // The search ended without a pair: at an unpaired "#", or at none (-1).
  if (iStart >= 1) {
    CutPlaces(nSaved);
    RecordPlace(offset, kPlaceDirective);
    RecordPlace(offset + (length < 0 ? 0 : length), kPlaceEnd);
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Tags

// Pushes the tag; a server tag by prefix gets its code-1 place and may open
// non-HTML content or a zboutput block. As in every handler of a tag, the
// natives pass no null name or value.
int PreOpenTagBegin(const char16_t* name, int32_t offset) {
  sPendingTag = kNoTag;
  gbHasAttrs = 0;
  if (!OpenTagStackPush(name, offset, 0)) return 1;
  sPendingTag = kOpenTag;
  int32_t iTop = gOpenTags.nSize - 1;
  if (!TagPrefixIndexMatches(name)) return 1;
  gOpenTagIsServerTag.pData[iTop] = 1;
  if (gInsideNonHtml == 0) RecordPlace(offset, kPlaceServerOpenTag);
  if (StringArrayFindExact(&gTagsContainingNonHtml, name) >= 0) {
    gOpenTagIsNonHtmlServerTag.pData[iTop] = 1;
    ++gInsideNonHtml;
  }
  if (IsZboutput(name)) {
    if (gInsideZboutput == 0) {
      gZboutputStartOffset = offset;
      gZboutputStartHasAttrs = 0;
    }
    ++gInsideZboutput;
  }
  return 1;
}

// Applies the attribute rules to the open tag being scanned (every matching
// rule, in list order; lists of unequal length are read as far as the
// shortest, a missing non-HTML flag counting as 0) and notes that the tag
// has attributes. Ignored when no open tag is being scanned.
int PreAttributeVX(const char16_t* name, const char16_t* value) {
  if (sPendingTag != kOpenTag) return 1;
  int32_t iTop = OpenTagStackTop();
  if (iTop < 0) return 1;
  int32_t nRules = gAttrsForServerTags.nSize < gAttrValuesForServerTags.nSize ? gAttrsForServerTags.nSize
                                                                             : gAttrValuesForServerTags.nSize;
  for (int32_t i = 0; i < nRules; ++i) {
    const char16_t* ruleName = gAttrsForServerTags.pData[i];
    const char16_t* ruleValue = gAttrValuesForServerTags.pData[i];
    if (!TextsEqualFolded(name, ruleName) || !TextsEqualFolded(value, ruleValue)) continue;
    if (gOpenTagIsServerTag.pData[iTop] == 0 && gInsideNonHtml == 0)
      RecordPlace(gOpenTagOffsets.pData[iTop], kPlaceServerOpenTag);
    gOpenTagIsServerTag.pData[iTop] = 1;
    int32_t bDenotesNonHtml = i < gAttrsDenoteNonHtmlTags.nSize ? gAttrsDenoteNonHtmlTags.pData[i] : 0;
    if (!bDenotesNonHtml || gOpenTagIsNonHtmlServerTag.pData[iTop]) continue;
    // A server form's content is the page's own HTML.
    if (BeginsWithFolded(gOpenTags.pData[iTop], char16_literal(u"form"))) continue;
    if (BeginsWithFolded(ruleName, char16_literal(u"runat")) &&
        BeginsWithFolded(ruleValue, char16_literal(u"server"))) {
      gOpenTagIsNonHtmlServerTag.pData[iTop] = 1;
      ++gInsideNonHtml;
    }
  }
  gbHasAttrs = 1;
  if (gOpenTagOffsets.pData[iTop] == gZboutputStartOffset) gZboutputStartHasAttrs = 1;
  return 1;
}

// Ends the open tag: a tag closing itself leaves the stack; a server tag
// gets the code-6 place after its ">", an ordinary tag with attributes an
// attribute-label place. Ignored when no open tag is being scanned.
int PreOpenTagEnd(int32_t endOffset, const char16_t* closingText) {
  bool bPending = sPendingTag == kOpenTag;
  sPendingTag = kNoTag;
  int32_t iTop = OpenTagStackTop();
  if (!bPending || iTop < 0) return 1;
  int32_t bServer = gOpenTagIsServerTag.pData[iTop];
  int32_t bNonHtml = gOpenTagIsNonHtmlServerTag.pData[iTop];
  size_t nClosing = TextLength(closingText);
  if (nClosing > 0 && closingText[nClosing - 1] == u'/') {
    OpenTagStackPop(1);
    if (bNonHtml) --gInsideNonHtml;
  }
  if (gInsideNonHtml != 0) return 1;
  if (bServer) {
    RecordPlace(endOffset, kPlaceEnd);
    return 1;
  }
  if (gbHasAttrs) RecordAttrPlace(gOffset, static_cast<int64_t>(endOffset) - static_cast<int64_t>(gOffset) - 1);
  return 1;
}

// Finds the innermost open tag of this name and drops the entries above it,
// or pushes an entry for an unmatched close tag. A server tag gets its
// code-2 place (none when it closes non-HTML content, which ends here); a
// zboutput close tag ends its block, and the outermost block collapses when
// it held one expression only. The zboutput depth never goes below 0: a
// close tag with no open block changes nothing.
int PreCloseTagBegin(const char16_t* name, int32_t offset) {
  sPendingTag = kNoTag;
  int32_t iFound = OpenTagStackFind(name);
  if (iFound >= 0) {
    OpenTagStackPop(gOpenTags.nSize - 1 - iFound);
  } else if (!OpenTagStackPush(name, -1, TagPrefixIndexMatches(name) ? 1 : 0)) {
    return 1;
  }
  int32_t iTop = OpenTagStackTop();
  if (iTop < 0) return 1;
  sPendingTag = kCloseTag;
  if (!gOpenTagIsServerTag.pData[iTop]) return 1;
  if (gOpenTagIsNonHtmlServerTag.pData[iTop]) {
    --gInsideNonHtml;
  } else if (gInsideNonHtml == 0) {
    RecordPlace(offset, kPlaceServerCloseTag);
  }
  if (!IsZboutput(name) || gInsideZboutput <= 0) return 1;
  if (--gInsideZboutput == 0) CollapseZboutput();
  return 1;
}

// Ends the close tag: its entry leaves the stack, and a server tag gets the
// code-6 place after its ">". Ignored without a close tag being scanned.
int PreCloseTagEnd(int32_t endOffset) {
  bool bPending = sPendingTag == kCloseTag;
  sPendingTag = kNoTag;
  int32_t iTop = OpenTagStackTop();
  if (!bPending || iTop < 0) return 1;
  int32_t bServer = gOpenTagIsServerTag.pData[iTop];
  OpenTagStackPop(1);
  if (bServer && gInsideNonHtml == 0) RecordPlace(endOffset, kPlaceEnd);
  return 1;
}
