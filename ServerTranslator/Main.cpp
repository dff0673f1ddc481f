// Entry and registration, the translation session's lifecycle, the scanner
// callbacks of both passes, the end of the pre pass with label insertion, the
// merge that ends the post pass, and the two text services.
//
// Rules local to this file: every native checks its argument count before it
// touches anything; a host operation's slot is re-read right before each
// call; every text made here is released before the native returns.
#include "Main.h"

#include <cstring>
#include <string>

#include "Assert.h"
#include "HiliteColor.h"
#include "Memory.h"
#include "PostRecord.h"
#include "Pre.h"
#include "Session.h"
#include "StringArray.h"
#include "Text16.h"
#include "Utility.h"

void* qzEnv[kHostSlotCount];

IntArray gOffsetArray;
IntArray gOffsetTypeArray;
IntArray gAttrOffsetArray;
IntArray gAttrLengthArray;
IntArray gFromServerOffsetArray;
IntArray gFromServerLengthArray;
IntArray gLabelArray;
IntArray gAttrFromServerOffsetArray;
IntArray gAttrFromServerLengthArray;
IntArray gAttrLabelArray;
IntArray gFromServerTagBeginArray;
IntArray gFromServerTagEndArray;
StringBuffer gEncodedAttrs;
int32_t gFromServerTitleInsideStart = -1;
int32_t gFromServerTitleInsideEnd = -1;
intptr_t gMarker = -1;
intptr_t gOffset;
int32_t gbPreTranslate;

// ---------------------------------------------------------------------------
// Entry and registration

namespace {

struct NativeEntry {
  ScriptFunctionId id;
  Native fn;
};

// The native of each script function, in the contract's order of
// registration; its names and arities come from the contract.
constexpr NativeEntry kNatives[] = {
    {kFnInitialize, Initialize},
    {kFnBeginPreTranslate, BeginPreTranslate},
    {kFnEndPreTranslate, EndPreTranslate},
    {kFnSetLineEndingsToMatch, SetLineEndingsToMatch},
    {kFnReplaceTextInsideTag, ReplaceTextInsideTag},
    {kFnBeginPostTranslate, BeginPostTranslate},
    {kFnEndPostTranslate, EndPostTranslate},
    {kFnCleanup, Cleanup},
    {kFnDirective, Directive},
    {kFnOpenTagBegin, OpenTagBegin},
    {kFnOpenTagEnd, OpenTagEnd},
    {kFnAttribute, Attribute},
    {kFnCloseTagBegin, CloseTagBegin},
    {kFnCloseTagEnd, CloseTagEnd},
    {kFnText, Text},
};

constexpr bool InContractOrder() {
  int i = 0;
  for (const NativeEntry& e : kNatives)
    if (e.id != i++) return false;
  return i == kScriptFunctionCount;
}
static_assert(InContractOrder(), "one native per script function, in the order of registration");

}  // namespace

// Copies whole slots that lie within sizeInBytes (at most 46; a trailing
// part-slot is not read), zeroes the rest, then registers the natives.
intptr_t QZ_InitWrapper(void* const* table, uint32_t sizeInBytes) {
  size_t nSlots = sizeInBytes / sizeof(void*);
  if (nSlots > kHostSlotCount) nSlots = kHostSlotCount;
  if (!table) nSlots = 0;
  for (size_t i = 0; i < kHostSlotCount; ++i) qzEnv[i] = i < nSlots ? table[i] : nullptr;
  return QZ_Init();
}

// Registers the fifteen script functions in order. Returns the define
// operation's result for the last one, or 0 as soon as the slot is empty.
intptr_t QZ_Init() {
  intptr_t result = 0;
  for (const NativeEntry& e : kNatives) {
    DefineFunctionOp define = HostOp<DefineFunctionOp>(kSlotDefineFunction);
    if (!define) return 0;
    const ScriptFunctionName& f = kScriptFunctionNames[e.id];
    result = define(qzEnv[kSlotLibraryObject], f.name, e.fn, f.nargs);
  }
  return result;
}

int JS_PropertyStub() { return 1; }

void JS_FinalizeStub() {}

// ---------------------------------------------------------------------------
// Session lifecycle

static IntArray* const kSessionArrays[] = {
    &gOffsetArray,           &gOffsetTypeArray,           &gFromServerOffsetArray,
    &gFromServerLengthArray, &gLabelArray,                &gAttrOffsetArray,
    &gAttrLengthArray,       &gAttrFromServerOffsetArray, &gAttrFromServerLengthArray,
    &gAttrLabelArray,        &gFromServerTagBeginArray,   &gFromServerTagEndArray,
};

// Creates or empties the session arrays and makes a new encoded-attribute
// list. Fails at the first array that cannot get storage; what was made
// before stays for cleanup to release.
int Initialize(void*, void*, uint32_t, ScriptValue*, ScriptValue*) {
  for (IntArray* a : kSessionArrays)
    if (!IntArrayCreate(a)) return 0;
  MemFree(gEncodedAttrs.pData);
  gEncodedAttrs = StringBuffer{};
  if (!StringBufferCreate(&gEncodedAttrs)) {
    gEncodedAttrs = StringBuffer{};
    return 0;
  }
  gFromServerTitleInsideStart = -1;
  gFromServerTitleInsideEnd = -1;
  return 1;
}

int BeginPreTranslate(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue*) {
  gbPreTranslate = 1;
  return PreInitialize(cx, argc, argv);
}

int BeginPostTranslate(void*, void*, uint32_t, ScriptValue*, ScriptValue*) {
  gbPreTranslate = 0;
  gEncodedAttrs.nSize = 0;
  return 1;
}

// Releases the session arrays and the encoded-attribute list; never fails.
// The pre pass's lists are its own business (endPreTranslate).
int Cleanup(void*, void*, uint32_t, ScriptValue*, ScriptValue*) {
  for (IntArray* a : kSessionArrays) IntArrayDestroy(a);
  MemFree(gEncodedAttrs.pData);
  gEncodedAttrs = StringBuffer{};
  return 1;
}

// ---------------------------------------------------------------------------
// Scanner callbacks

namespace {

// One converted text argument: the host's text (null when it could not be
// read) and its length in code units.
struct TextArg {
  const char16_t* text;
  int32_t length;
};

TextArg ReadText(void* cx, ScriptValue v) {
  TextArg t;
  t.text = HostValueToString(cx, v, &t.length);
  if (!t.text) t.length = 0;
  return t;
}

int32_t ReadInt(void* cx, ScriptValue v) {
  intptr_t n = 0;
  HostValueToInteger(cx, v, &n);
  return static_cast<int32_t>(n);
}

int Succeed(ScriptValue* rval) {
  *rval = kScriptTrue;
  return 1;
}

// True when text is the whole word "title", ignoring case.
bool IsTitle(const char16_t* text) {
  static const char16_t* const kTitle = char16_literal(u"title");
  return text && TextsEqualFolded(text, kTitle);
}

}  // namespace

int Directive(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  TextArg text = ReadText(cx, argv[0]);
  int32_t offset = ReadInt(cx, argv[1]);
  if (!text.text) return Succeed(rval);
  if (gbPreTranslate) {
    PreDirective(text.text, text.length, offset);
    return Succeed(rval);
  }
  int label = 0;
  if (char16_swscanf(text.text, char16_literal(kLabelCommentScan), &label) == 1)
    PostRecordLabelComment(offset, text.length, label);
  return Succeed(rval);
}

int OpenTagBegin(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  TextArg name = ReadText(cx, argv[0]);
  int32_t offset = ReadInt(cx, argv[1]);
  // 32-bit wrap-around, computed without signed overflow.
  gOffset = static_cast<int32_t>(static_cast<uint32_t>(offset) + static_cast<uint32_t>(name.length) + 1u);
  if (gbPreTranslate) {
    if (name.text) PreOpenTagBegin(name.text, offset);
    return Succeed(rval);
  }
  gMarker = -1;
  PostRecordOpenTagBegin(offset, IsTitle(name.text));
  return Succeed(rval);
}

int Attribute(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  TextArg name = ReadText(cx, argv[0]);
  TextArg value = ReadText(cx, argv[1]);
  if (name.length == 0) name = value;
  if (gbPreTranslate) {
    if (name.text && value.text) PreAttributeVX(name.text, value.text);
    return Succeed(rval);
  }
  static const char16_t* const kLabelName = char16_literal(kLabelAttrName);
  if (name.text && TextLength(name.text) == 4 && std::char_traits<char16_t>::compare(name.text, kLabelName, 4) == 0) {
    ValueToIntegerOp toInteger = HostOp<ValueToIntegerOp>(kSlotValueToInteger);
    if (toInteger) toInteger(cx, argv[1], &gMarker);
    return Succeed(rval);
  }
  if (gMarker == -1) return Succeed(rval);
  PostRecordAttribute(name.text, name.length, value.text, value.length);
  return Succeed(rval);
}

int OpenTagEnd(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  int32_t endOffset = ReadInt(cx, argv[0]);
  TextArg closing = ReadText(cx, argv[1]);
  if (gbPreTranslate) {
    PreOpenTagEnd(endOffset, closing.text);
    return Succeed(rval);
  }
  if (gMarker != -1) {
    uint32_t nClosing = static_cast<uint32_t>(TextLength(closing.text));
    uint32_t length = static_cast<uint32_t>(endOffset) - static_cast<uint32_t>(gOffset) - 1u - nClosing;
    PostRecordLabelledTag(static_cast<int32_t>(gOffset), static_cast<int32_t>(length), static_cast<int32_t>(gMarker));
  }
  PostRecordTagEnd(endOffset);
  return Succeed(rval);
}

int CloseTagBegin(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  TextArg name = ReadText(cx, argv[0]);
  int32_t offset = ReadInt(cx, argv[1]);
  if (gbPreTranslate) {
    if (name.text) PreCloseTagBegin(name.text, offset);
    return Succeed(rval);
  }
  PostRecordCloseTagBegin(offset, IsTitle(name.text));
  return Succeed(rval);
}

int CloseTagEnd(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 1) return 0;
  int32_t endOffset = ReadInt(cx, argv[0]);
  if (gbPreTranslate)
    PreCloseTagEnd(endOffset);
  else
    PostRecordTagEnd(endOffset);
  return Succeed(rval);
}

// The count is checked by the pre pass only, and only where it matters.
int Text(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  int result = gbPreTranslate ? PreText(cx, argc, argv) : 1;
  *rval = kScriptTrue;
  return result;
}

// ---------------------------------------------------------------------------
// End of the pre pass: label insertion

// Label numbers up to 7 digits fit the 5 units each label gets beyond its
// format's 15 or 11; every number past 9 999 999 needs one unit more for each
// further digit. Among the labels 0 .. n - 1, those from 10^k on have more
// than k digits, so the units beyond 7 digits are the sum of n - 10^k over
// k = 7, 8, 9 wherever it is positive (no int32 label has more than 10
// digits).
static int64_t UnitsBeyondSevenDigits(int32_t nLabels) {
  int64_t nUnits = 0;
  for (int64_t from = 10000000; from <= 1000000000; from *= 10)
    if (nLabels > from) nUnits += nLabels - from;
  return nUnits;
}

// Code units the labelled page needs, NUL included: nPage units of page,
// nComments label comments and nAttrs label attributes, numbered from 0.
// Never short, for any count an IntArray can hold; pages whose labels stay
// below 10 000 000 get 20 units per comment and 16 per attribute. Computed in
// 64 bits, so it cannot wrap.
int64_t LabelledPageSize(int64_t nPage, int32_t nComments, int32_t nAttrs) {
  return nPage + 20 * int64_t{nComments} + 16 * int64_t{nAttrs} + UnitsBeyondSevenDigits(nComments) +
         UnitsBeyondSevenDigits(nAttrs) + 1;
}

namespace {

// Writes the page with a label comment at every place of gOffsetArray and a
// label attribute at every place of gAttrOffsetArray, into a new text sized
// by LabelledPageSize. Returns null when memory runs out or a place is out of
// order or beyond the page, in which case nothing is left allocated.
char16_t* InsertLabels(const char16_t* page) {
  static const char16_t* const kCommentFormat = char16_literal(kLabelCommentFormat);
  static const char16_t* const kAttrFormat = char16_literal(kLabelAttrFormat);
  const int64_t nPage = static_cast<int64_t>(TextLength(page));
  const int32_t nOff = gOffsetArray.nSize;
  const int32_t nAttr = gAttrOffsetArray.nSize;
  const int64_t outSize = LabelledPageSize(nPage, nOff, nAttr);
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return nullptr;

  char16_t* outPtr = outText;
  int32_t i = 0, j = 0;
  int64_t p = 0;
  while (i < nOff || j < nAttr) {
    bool bComment = IntArrayGetNext(&gOffsetArray, i, &gAttrOffsetArray, j) == &gOffsetArray;
    int64_t o = bComment ? gOffsetArray.pData[i] : gAttrOffsetArray.pData[j];
    // A place behind the previous one, or past the page's end, means the
    // page is not the one that was scanned: hand nothing back.
    if (o < p || o > nPage) {
      MemFree(outText);
      return nullptr;
    }
    std::memcpy(outPtr, page + p, static_cast<size_t>(o - p) * sizeof(char16_t));
    outPtr += o - p;
    size_t room = static_cast<size_t>(outSize - (outPtr - outText));
    char16_swprintf(outPtr, room, bComment ? kCommentFormat : kAttrFormat, bComment ? i++ : j++);
    outPtr += TextLength(outPtr);
    p = o;
  }
  std::memcpy(outPtr, page + p, static_cast<size_t>(nPage - p + 1) * sizeof(char16_t));
  outPtr += nPage - p;
  QZ_ASSERT(outPtr - outText < outSize);
  return outText;
}

}  // namespace

// Ends the pre pass: its settings are released first, whatever follows.
// Returns the labelled page as the script's result.
int EndPreTranslate(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  PreCleanup();
  if (argc != 1) return 0;
  int32_t nReported = 0;
  const char16_t* page = HostValueToString(cx, argv[0], &nReported);
  if (!page) return 0;
  char16_t* outText = InsertLabels(page);
  if (!outText) return 0;
  int result = HostStringToValue(cx, outText, rval);
  MemFree(outText);
  return result;
}

// ---------------------------------------------------------------------------
// The end of the post pass: endPostTranslate merges the page source with the
// server's output for the labelled page, in three stages.
//
//   RemoveLabels   cuts the label comments and label attributes out of the
//                  server output and moves the recorded offsets into the
//                  label-free text.
//   AddLocks       replaces each piece of server output between two labels
//                  with lock markup carrying the page's server code (or the
//                  page's own tag, or leaves it when it equals the code).
//   AddAttributes  gives labelled tags whose attributes the server changed
//                  their source attributes and a translated-value attribute.
//
// Rules local to this file: the server output and the host scanner's report
// on it are ordinary input, so every recorded offset and label number is
// checked against the text or array it indexes before it is used, and a
// report that does not fit fails the merge cleanly or is passed over (each
// routine says which). Every buffer a stage makes is released on every path
// before endPostTranslate returns; the host's argument texts are only read.
// Sizes are computed in 64 bits and checked before allocating.

namespace {

int32_t MergeMin(int32_t a, int32_t b) { return a < b ? a : b; }

// A recorded offset moved by delta, kept within 32 bits: only a forged
// report can leave the range, and later checks refuse what it points at.
int32_t MergeClamp(int64_t value) {
  if (value < INT32_MIN) return INT32_MIN;
  if (value > INT32_MAX) return INT32_MAX;
  return static_cast<int32_t>(value);
}

// Label comments that came back with all three of their entries (an entry
// lost to an allocation failure in the scanner callbacks drops the rest).
int32_t MergeCommentCount() {
  return MergeMin(gFromServerOffsetArray.nSize, MergeMin(gFromServerLengthArray.nSize, gLabelArray.nSize));
}

// True when label names a label place of the pre pass. Other numbers come
// from label comments that the page's author typed or the server made up;
// they are not labels, and their text stays in the page.
bool MergeIsLabel(int32_t label) { return label >= 0 && label < MergeMin(gOffsetArray.nSize, gOffsetTypeArray.nSize); }

// ---------------------------------------------------------------------------
// Label removal

// Cuts every label out of serverText and rewrites the offsets recorded in
// the post pass into offsets of the label-free text; the attribute-text
// lengths of labelled tags lose the label attribute's length. Returns the
// new label-free text (its length in *pLength), or null, with nothing held,
// when memory runs out or the report does not fit the text: a label comment
// or label attribute inside text already cut, a comment reaching past the
// text's end, a label attribute that is not " qzvx=" at its recorded offset
// (the server moved or rewrote it) or whose tag does not end. The arrays
// then stay as far as they were rewritten.
char16_t* RemoveLabels(const char16_t* serverText, int64_t* pLength) {
  static const char16_t* const kLabelAttr = char16_literal(kLabelAttrLead);
  const int64_t n = static_cast<int64_t>(TextLength(serverText));
  if (n >= INT32_MAX) return nullptr;
  const int64_t outSize = n + 1;
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return nullptr;

  IntArray* comments = &gFromServerOffsetArray;
  IntArray* attrs = &gAttrFromServerOffsetArray;
  IntArray* begins = &gFromServerTagBeginArray;
  IntArray* ends = &gFromServerTagEndArray;
  const int32_t nComments = MergeCommentCount();
  const int32_t nAttrs = attrs->nSize;
  const int32_t nBegins = begins->nSize;
  const int32_t nEnds = ends->nSize;
  int32_t i = 0, j = 0, k = 0, l = 0;
  const char16_t* inPtr = serverText;
  char16_t* outPtr = outText;
  int64_t removed = 0;
  bool bFits = true;

  while (bFits && (i < nComments || j < nAttrs || k < nBegins || l < nEnds)) {
    // A comment entry past nComments lacks its length or number: it is
    // not looked at, as if the array ended there.
    IntArray* next = IntArrayGetNext4(comments, i < nComments ? i : comments->nSize, attrs, j, begins, k, ends, l);
    const int64_t pos = inPtr - serverText;
    int64_t v, cut;
    if (next == begins || next == ends) {
      int32_t* entry = next == begins ? &begins->pData[k++] : &ends->pData[l++];
      *entry = MergeClamp(*entry - removed);
      continue;
    }
    if (next == comments) {
      v = comments->pData[i];
      if (!MergeIsLabel(gLabelArray.pData[i])) {
        comments->pData[i++] = MergeClamp(v - removed);
        continue;
      }
      cut = gFromServerLengthArray.pData[i];
      bFits = cut >= 0 && v >= pos && v + cut <= n;
      if (!bFits) break;
      comments->pData[i++] = MergeClamp(v - removed);
    } else {
      v = attrs->pData[j];
      bFits = v >= pos && v + 6 <= n && std::memcmp(serverText + v, kLabelAttr, 6 * sizeof(char16_t)) == 0;
      if (!bFits) break;
      // The label attribute runs through the blank after it. Output that
      // lost that blank (a minifier, or a server that dropped the tag's
      // other attributes) ends it at the tag's closing "/>" or ">" instead;
      // a search that leaves the tag would cut page text.
      int64_t w = v + 6;
      while (w < n && serverText[w] != u' ' && serverText[w] != u'>' && serverText[w] != u'<') ++w;
      bFits = w < n && serverText[w] != u'<';
      if (!bFits) break;
      if (serverText[w] == u' ')
        ++w;
      else if (serverText[w - 1] == u'/')
        --w;
      cut = w - v;
      attrs->pData[j] = MergeClamp(v - removed);
      if (j < gAttrFromServerLengthArray.nSize)
        gAttrFromServerLengthArray.pData[j] = MergeClamp(gAttrFromServerLengthArray.pData[j] - cut);
      ++j;
    }
    std::memcpy(outPtr, inPtr, static_cast<size_t>(v - pos) * sizeof(char16_t));
    outPtr += v - pos;
    inPtr = serverText + v + cut;
    removed += cut;
  }
  if (!bFits) {
    MemFree(outText);
    return nullptr;
  }
  const int64_t nRest = n - (inPtr - serverText);
  std::memcpy(outPtr, inPtr, static_cast<size_t>(nRest + 1) * sizeof(char16_t));
  outPtr += nRest;
  QZ_ASSERT(outPtr - outText < outSize);
  *pLength = outPtr - outText;
  return outText;
}

// ---------------------------------------------------------------------------
// Lock insertion

// What the lock stage reads and writes besides the session arrays.
struct MergeLockContext {
  const char16_t* origText;
  int64_t nOrig;
  const char16_t* labelFree;
  int64_t nLabelFree;
  const char16_t* lockBeginFormat;
  int64_t nLockBeginFormat;
  const char16_t* lockEndText;
  int64_t nLockEndText;
  const char16_t* valueAttr;  // the translated-value attribute of blank server open tags
  int64_t nValueAttr;
  bool bLockEmptyPrefixedTags;
  bool bLockFormatUsable;  // lockBeginFormat passes MergeLockFormatIsUsable
  bool bHiliteIndex;       // the highlight tag index of this merge is built
  StringBuffer* locked;
};

// True when the script's lock format takes at most one text and nothing
// else: "%s" or "%ls", and "%%". Any other conversion would read an argument
// that is not there, so a lock made with such a format fails the merge; a
// page that needs no lock never reads the format and merges all the same.
bool MergeLockFormatIsUsable(const char16_t* format) {
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
char16_t* MergeFormatValueAttr(const char16_t* translatedValue, int64_t* pLength) {
  static const char16_t* const kFormat = char16_literal(u" qzTranslatedValue=\"%ls\"");
  const int64_t nSize =
      static_cast<int64_t>(TextLength(kFormat)) + static_cast<int64_t>(TextLength(translatedValue)) + 1;
  char16_t* text = TextAlloc(nSize);
  if (!text) return nullptr;
  char16_swprintf(text, static_cast<size_t>(nSize), kFormat, translatedValue);
  *pLength = static_cast<int64_t>(TextLength(text));
  return text;
}

bool MergeIsBlank(const char16_t* text, int64_t n) {
  for (int64_t i = 0; i < n; ++i)
    if (!IsWhiteUnit(text[i])) return false;
  return true;
}

// The five qz: tags that keep their tag form even when
// lockEmptyPrefixedTags asks prefixed tags to be locked.
bool MergeIsKeptQzTag(const char16_t* name, int64_t n) {
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

enum MergeTagForm { kTagFormFailed, kTagFormDone, kTagFormDeclined };

// A blank server open tag written as the page has it, with the
// translated-value attribute after its name. Declines (the piece is then
// locked) when lockEmptyPrefixedTags locks it, or when the page text at the
// label place is not the tag that was scanned.
MergeTagForm MergeAppendTagForm(MergeLockContext* ctx, int32_t label, int64_t o) {
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
    if (bColon && !MergeIsKeptQzTag(origText + nameStart, nName)) return kTagFormDeclined;
  }
  if (!StringBufferAddUnits(ctx->locked, origText + o, attrBlock - o) ||
      !StringBufferAddUnits(ctx->locked, ctx->valueAttr, ctx->nValueAttr) ||
      !StringBufferAddUnits(ctx->locked, origText + attrBlock, copyEnd - attrBlock))
    return kTagFormFailed;
  return kTagFormDone;
}

// True when the server open tag at o (kind code 1) is one whose output stays
// uncoloured: names beginning with asp:datagrid, asp:datalist or form.
bool MergeIsUncolouredTag(const char16_t* origText, int64_t o, int64_t end) {
  if (origText[o] != u'<') return false;
  int64_t n = o + 1;
  while (n < end && IsWhiteUnit(origText[n])) ++n;
  if (n + 12 < end && (UnitsEqualFolded(origText + n, char16_literal(u"asp:datagrid"), 12) ||
                       UnitsEqualFolded(origText + n, char16_literal(u"asp:datalist"), 12)))
    return true;
  return n + 4 < end && UnitsEqualFolded(origText + n, char16_literal(u"form"), 4);
}

// The lock opening: the script's format filled with the URL-encoded code.
bool MergeAppendLockOpening(MergeLockContext* ctx, int64_t o, int64_t nCode) {
  if (!ctx->bLockFormatUsable) return false;
  char16_t* code = EncodeURL(ctx->origText + o, static_cast<int32_t>(nCode));
  if (!code) return false;
  const int64_t nOpening = ctx->nLockBeginFormat + static_cast<int64_t>(TextLength(code)) + 1;
  char16_t* opening = TextAlloc(nOpening);
  bool bOk = false;
  if (opening) {
    opening[0] = 0;
    bOk = _swprintf(opening, static_cast<size_t>(nOpening), ctx->lockBeginFormat, code) >= 0 &&
          StringBufferAddUnits(ctx->locked, opening, static_cast<int64_t>(TextLength(opening)));
  }
  MemFree(opening);
  MemFree(code);
  return bOk;
}

// Appends the piece [s, s + nOut) of the label-free text locked with the
// code origText[o, end) of the pair (label, closing).
bool MergeAppendLock(MergeLockContext* ctx, int32_t label, int32_t closing, int32_t kind, int64_t o, int64_t end,
                     int64_t s, int64_t nOut) {
  static const char16_t* const kInvisibleOpen = char16_literal(u"<qz:invisible>");
  static const char16_t* const kInvisibleClose = char16_literal(u"</qz:invisible>");
  const int64_t nCode = end - o;
  if (!MergeAppendLockOpening(ctx, o, nCode)) return false;
  if (label % 2 == 0 && closing == label + 1 && nCode > 0 && kind != 1 && kind != 2) {
    if (!StringBufferAddUnits(ctx->locked, kInvisibleOpen, 14) || !StringBufferAddUnits(ctx->locked, ctx->origText + o, nCode) ||
        !StringBufferAddUnits(ctx->locked, kInvisibleClose, 15))
      return false;
  }
  if (kind == 1 && MergeIsUncolouredTag(ctx->origText, o, end)) {
    if (!StringBufferAddUnits(ctx->locked, ctx->labelFree + s, nOut)) return false;
  } else {
    if (!ctx->bHiliteIndex) {
      if (!HiliteColorBegin(ctx->labelFree, static_cast<int32_t>(ctx->nLabelFree))) return false;
      ctx->bHiliteIndex = true;
    }
    if (!AddHiliteColor(ctx->locked, ctx->labelFree, static_cast<int32_t>(s), static_cast<int32_t>(nOut))) return false;
  }
  return StringBufferAddUnits(ctx->locked, ctx->lockEndText, ctx->nLockEndText);
}

// Appends one piece: the labelled stretch (label, closing) of the page, whose
// server output is [s, e) of the label-free text. Fails when an append runs
// out of memory, when the piece needs a lock and the lock format is not
// usable, or when the stretch's label places do not lie in order inside the
// page text (a page other than the one that was scanned).
bool MergeAppendPiece(MergeLockContext* ctx, int32_t label, int32_t closing, int64_t s, int64_t e) {
  const int64_t o = gOffsetArray.pData[label];
  const int64_t end = gOffsetArray.pData[closing];
  const int32_t kind = gOffsetTypeArray.pData[label];
  if (o < 0 || o > end || end > ctx->nOrig) return false;
  const int64_t nCode = end - o;
  const int64_t nOut = e - s;
  const char16_t* piece = ctx->labelFree + s;
  if (MergeIsBlank(piece, nOut)) {
    if (kind == 1 && closing == label + 1) {
      MergeTagForm form = MergeAppendTagForm(ctx, label, o);
      if (form != kTagFormDeclined) return form == kTagFormDone;
    } else if (kind == 2) {
      return StringBufferAddUnits(ctx->locked, ctx->origText + o, nCode);
    }
  }
  if (nCode == nOut && std::memcmp(piece, ctx->origText + o, static_cast<size_t>(nOut) * sizeof(char16_t)) == 0)
    return StringBufferAddUnits(ctx->locked, piece, nOut);
  return MergeAppendLock(ctx, label, closing, kind, o, end, s, nOut);
}

// Moves the labelled-tag offsets that lie before limit by shift, from *pIndex
// on; returns with *pIndex at the first one not moved.
void MergeShiftTags(int32_t* pIndex, int64_t limit, int64_t shift) {
  IntArray* attrs = &gAttrFromServerOffsetArray;
  for (; *pIndex < attrs->nSize && attrs->pData[*pIndex] < limit; ++*pIndex)
    attrs->pData[*pIndex] = MergeClamp(attrs->pData[*pIndex] + shift);
}

// The walk over the label comments, one piece per iteration; appends the
// whole locked text with its NUL. Fails when a start label has no closing
// label after it, or as MergeAppendPiece does.
bool MergeLockPieces(MergeLockContext* ctx) {
  const int32_t nLabels = MergeCommentCount();
  const int32_t* pLabel = gLabelArray.pData;
  const int32_t* pOffset = gFromServerOffsetArray.pData;
  IntArray* attrs = &gAttrFromServerOffsetArray;
  int32_t p = 0;
  bool bPending = false;
  int32_t pendingStart = 0, pendingClosing = 0;
  int64_t prevEnd = 0;
  int32_t iAttr = 0;
  int64_t shift = 0;
  for (;;) {
    int32_t label, closing;
    int64_t s, e;
    if (bPending) {
      label = pendingStart;
      closing = pendingClosing;
      s = e = prevEnd;
      bPending = false;
    } else {
      while (p < nLabels && !(MergeIsLabel(pLabel[p]) && pLabel[p] % 2 == 0)) ++p;
      if (p >= nLabels) break;
      label = pLabel[p];
      s = pOffset[p];
      int32_t q = p + 1;
      while (q < nLabels && !(MergeIsLabel(pLabel[q]) && pLabel[q] % 2 == 1 && pLabel[q] >= label)) ++q;
      if (q >= nLabels) return false;
      if (q - 1 > p && pLabel[q - 1] == label && pOffset[q - 1] > s) {
        // The server repeated the start label: the piece ends there, and
        // the repeated label starts the next one.
        e = pOffset[q - 1];
        closing = label;
        p = q - 1;
      } else {
        e = pOffset[q];
        closing = pLabel[q];
        p = q + 1;
      }
    }
    if (s < prevEnd || s > e || e > ctx->nLabelFree) return false;
    if (s == e && closing > label + 1) {
      // Labels lost in between: step through them one at a time, so that
      // the page text between two stretches gets a piece of its own.
      bPending = true;
      pendingStart = label + 1;
      pendingClosing = closing;
      closing = label + 1;
    }
    if (!StringBufferAddUnits(ctx->locked, ctx->labelFree + prevEnd, s - prevEnd)) return false;
    if (!MergeAppendPiece(ctx, label, closing, s, e)) return false;
    MergeShiftTags(&iAttr, s, shift);
    shift = ctx->locked->nSize - e;
    for (; iAttr < attrs->nSize && attrs->pData[iAttr] < e; ++iAttr) attrs->pData[iAttr] = -1;
    prevEnd = e;
  }
  MergeShiftTags(&iAttr, INT64_MAX, shift);
  static const char16_t kNul[1] = {0};
  if (!StringBufferAddUnits(ctx->locked, ctx->labelFree + prevEnd, ctx->nLabelFree - prevEnd) ||
      !StringBufferAddUnits(ctx->locked, kNul, 1))
    return false;
  return ctx->locked->pData != nullptr;
}

// Builds the locked text into *locked (NUL-terminated; the caller releases
// its storage) and moves the labelled-tag offsets into it. On failure
// returns false with nothing held: no locked text, no attribute text, no
// highlight index.
bool AddLocks(const char16_t* origText, const char16_t* labelFree, int64_t nLabelFree, const char16_t* lockBeginFormat,
              const char16_t* lockEndText, const char16_t* translatedValue, bool bLockEmptyPrefixedTags,
              StringBuffer* locked) {
  *locked = StringBuffer{};
  MergeLockContext ctx{};
  ctx.origText = origText;
  ctx.nOrig = static_cast<int64_t>(TextLength(origText));
  ctx.labelFree = labelFree;
  ctx.nLabelFree = nLabelFree;
  ctx.lockBeginFormat = lockBeginFormat;
  ctx.nLockBeginFormat = static_cast<int64_t>(TextLength(lockBeginFormat));
  ctx.bLockFormatUsable = MergeLockFormatIsUsable(lockBeginFormat);
  ctx.lockEndText = lockEndText;
  ctx.nLockEndText = static_cast<int64_t>(TextLength(lockEndText));
  ctx.bLockEmptyPrefixedTags = bLockEmptyPrefixedTags;
  ctx.locked = locked;
  char16_t* valueAttr = MergeFormatValueAttr(translatedValue, &ctx.nValueAttr);
  if (!valueAttr) return false;
  ctx.valueAttr = valueAttr;
  bool bOk = StringBufferCreate(locked) && MergeLockPieces(&ctx);
  MemFree(valueAttr);
  HiliteColorEnd();
  if (!bOk) {
    MemFree(locked->pData);
    *locked = StringBuffer{};
  }
  return bOk;
}

// ---------------------------------------------------------------------------
// Translated-value attributes

// The next record of the encoded-attribute list from *pPos on. A record
// whose NUL was lost (an allocation failure while recording) reads as empty.
const char16_t* MergeNextRecord(int64_t* pPos, int64_t* pLength) {
  static const char16_t* const kEmpty = char16_literal(u"");
  const char16_t* data = gEncodedAttrs.pData;
  const int64_t size = gEncodedAttrs.nSize;
  const int64_t pos = *pPos;
  *pLength = 0;
  if (!data || pos >= size) return kEmpty;
  int64_t z = pos;
  while (z < size && data[z] != 0) ++z;
  if (z >= size) {
    *pPos = size;
    return kEmpty;
  }
  *pPos = z + 1;
  *pLength = z - pos;
  return data + pos;
}

// How many locked-text units from s the source's attribute text replaces:
// the server's n units, extended over trailing white space to the unit that
// follows the source's attribute text, then trimmed back where both texts
// end in the same white space. *pReadEnd gets the end of what was read.
int64_t MergeAttrSpan(const char16_t* origText, int64_t o, int64_t m, const char16_t* locked, int64_t s, int64_t n,
                      int64_t* pReadEnd) {
  const char16_t a = origText[o + m];
  const char16_t* srv = locked + s;
  *pReadEnd = s + n + 1;
  if (a == srv[n] || srv[n] >= 128) return n;
  int64_t k = -1;
  for (int64_t j = 1; k < 0; ++j) {
    *pReadEnd = s + n + j + 1;
    if (!IsWhiteUnit(srv[n + j - 1])) return n;
    const char16_t u = srv[n + j];
    if (a != u'>') {
      if (u == a) k = n + j;
    } else if (u == u'>') {
      k = n + j;
    } else if (u == u'/' && m > 0 && origText[o + m - 1] == u'/' && srv[n + j + 1] == u'>') {
      *pReadEnd = s + n + j + 2;
      k = n + j + 1;
    }
    if (k < 0 && u >= 128) return n;
  }
  if (k == m) return k;
  int64_t p = m, q = k;
  if (a == u'>') {
    p = m - 1;
    q = k - 1;
    if (p >= 0 && origText[o + p] == u'/' && srv[q] == u'/') {
      p = m - 2;
      q = k - 2;
    }
  }
  if (p < 0 || q < 0 || origText[o + p] != srv[q] || !IsWhiteUnit(srv[q])) return k;
  int64_t t = 0;
  while (p - 1 - t >= 0 && q - 1 - t >= 0 && origText[o + p - 1 - t] == srv[q - 1 - t] && IsWhiteUnit(srv[q - 1 - t]))
    ++t;
  return q - t;
}

// Writes the merged page: the locked text with each changed labelled tag's
// attribute text replaced by the source's and followed by its
// translated-value attribute. Returns the new text, or null with nothing
// held when memory runs out, a source attribute length is negative, or a
// labelled tag starts inside text already read for an earlier one (entries
// out of order or overlapping). A labelled tag whose recorded place does not
// fit the locked text, or whose label is not one of the pre pass's
// attribute labels, is passed over and keeps the server's text.
char16_t* AddAttributes(const char16_t* origText, const char16_t* lockedText, int64_t nLocked) {
  static const char16_t* const kAttrFormat =
      char16_literal(u" qzTranslatedValue=\"%ls hilitecolor=%%22Dyn%%20Up-to-Date%%20Color%%22\"");
  const int64_t kAttrOutput = 64;  // the format's output without the record
  const int64_t nOrig = static_cast<int64_t>(TextLength(origText));
  const int32_t n =
      MergeMin(gAttrLabelArray.nSize, MergeMin(gAttrFromServerOffsetArray.nSize, gAttrFromServerLengthArray.nSize));
  const int32_t nSourceTags = MergeMin(gAttrOffsetArray.nSize, gAttrLengthArray.nSize);
  const int32_t* pServerOffset = gAttrFromServerOffsetArray.pData;
  const int32_t* pServerLength = gAttrFromServerLengthArray.pData;
  const int32_t* pLabel = gAttrLabelArray.pData;

  // Room for every tag to take its source attribute text and its attribute
  // in full. A server loop can repeat one labelled tag many times, each copy
  // taking the same source text, so the page's length is no bound for them.
  int64_t outSize = nLocked + 1 + kAttrOutput * int64_t{n} + int64_t{gEncodedAttrs.nSize};
  for (int32_t k = 0; k < n; ++k) {
    int32_t label = pLabel[k];
    if (label >= 0 && label < nSourceTags && gAttrLengthArray.pData[label] > 0)
      outSize += gAttrLengthArray.pData[label];
  }
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return nullptr;
  char16_t* outPtr = outText;
  auto room = [&]() { return outSize - (outPtr - outText); };

  int64_t copyPos = 0;
  int64_t readEnd = 0;
  int64_t recordPos = 0;
  for (int32_t k = 0; k < n; ++k) {
    int64_t nRecord = 0;
    const char16_t* record = MergeNextRecord(&recordPos, &nRecord);
    const int64_t s = pServerOffset[k];
    // Negative when the label attribute's blank was the tag's closing text:
    // the server left no attribute text.
    const int64_t nServer = pServerLength[k] < 0 ? 0 : pServerLength[k];
    const int32_t label = pLabel[k];
    if (s == -1 || label < 0 || label >= nSourceTags) continue;
    const int64_t o = gAttrOffsetArray.pData[label];
    const int64_t m = gAttrLengthArray.pData[label];
    if (s < 0 || s + nServer > nLocked) continue;
    if (m < 0 || s < readEnd) {
      MemFree(outText);
      return nullptr;
    }
    if (o < 0 || o + m > nOrig) continue;
    int64_t tagReadEnd = 0;
    const int64_t span = MergeAttrSpan(origText, o, m, lockedText, s, nServer, &tagReadEnd);
    readEnd = tagReadEnd > s + span ? tagReadEnd : s + span;
    if (span == m && std::memcmp(lockedText + s, origText + o, static_cast<size_t>(m) * sizeof(char16_t)) == 0)
      continue;
    if (s < copyPos || (s - copyPos) + m + kAttrOutput + nRecord + 1 > room()) {
      MemFree(outText);
      return nullptr;
    }
    std::memcpy(outPtr, lockedText + copyPos, static_cast<size_t>(s - copyPos) * sizeof(char16_t));
    outPtr += s - copyPos;
    std::memcpy(outPtr, origText + o, static_cast<size_t>(m) * sizeof(char16_t));
    outPtr += m;
    char16_swprintf(outPtr, static_cast<size_t>(room()), kAttrFormat, record);
    outPtr += TextLength(outPtr);
    copyPos = s + span;
  }
  const int64_t nRest = nLocked - copyPos;
  if (nRest + 1 > room()) {
    MemFree(outText);
    return nullptr;
  }
  std::memcpy(outPtr, lockedText + copyPos, static_cast<size_t>(nRest + 1) * sizeof(char16_t));
  outPtr += nRest;
  QZ_ASSERT(outPtr - outText < outSize);
  return outText;
}

}  // namespace

// endPostTranslate(origText, serverText, lockBeginFormat, lockEndText,
// translatedValue [, lockEmptyPrefixedTags]): merges the page source with
// the server output scanned in the post pass and returns the merged page.
// Fails (result untouched, nothing held) on a wrong argument count, a
// missing or failing boolean conversion of the sixth argument, a page or
// server text the host cannot give, and whenever a stage fails. Lock texts
// and the translated value that the host cannot give count as empty.
int EndPostTranslate(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 5 && argc != 6) return 0;
  const char16_t* texts[5] = {};
  for (int i = 0; i < 5; ++i) {
    int32_t nReported = 0;
    texts[i] = HostValueToString(cx, argv[i], &nReported);
  }
  bool bLockEmptyPrefixedTags = false;
  if (argc == 6) {
    ValueToBooleanOp toBoolean = HostOp<ValueToBooleanOp>(kSlotValueToBoolean);
    int32_t bValue = 0;
    if (!toBoolean || !toBoolean(cx, argv[5], &bValue)) return 0;
    bLockEmptyPrefixedTags = bValue != 0;
  }
  const char16_t* origText = texts[0];
  const char16_t* serverText = texts[1];
  if (!origText || !serverText) return 0;
  static const char16_t* const kEmpty = char16_literal(u"");
  const char16_t* lockBeginFormat = texts[2] ? texts[2] : kEmpty;
  const char16_t* lockEndText = texts[3] ? texts[3] : kEmpty;
  const char16_t* translatedValue = texts[4] ? texts[4] : kEmpty;

  int64_t nLabelFree = 0;
  char16_t* labelFree = RemoveLabels(serverText, &nLabelFree);
  if (!labelFree) return 0;
  StringBuffer locked{};
  if (!AddLocks(origText, labelFree, nLabelFree, lockBeginFormat, lockEndText, translatedValue, bLockEmptyPrefixedTags,
                &locked)) {
    MemFree(labelFree);
    return 0;
  }
  char16_t* merged = AddAttributes(origText, locked.pData, locked.nSize - 1);
  int result = merged ? HostStringToValue(cx, merged, rval) : 0;
  MemFree(labelFree);
  MemFree(locked.pData);
  MemFree(merged);
  return result;
}

// ---------------------------------------------------------------------------
// Text services

// Gives the second argument the first one's line-ending style. When nothing
// changes, the script gets its own second argument back.
int SetLineEndingsToMatch(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  int32_t nModel = 0, nText = 0;
  const char16_t* model = HostValueToString(cx, argv[0], &nModel);
  const char16_t* text = HostValueToString(cx, argv[1], &nText);
  if (!model || !text) return 0;
  const char16_t* result = StringSetLineEndingsToMatch(model, text);
  if (result == text) {
    *rval = argv[1];
    return 1;
  }
  if (!result) return 0;
  int ok = HostStringToValue(cx, result, rval);
  MemFree(const_cast<char16_t*>(result));
  return ok;
}

// Replaces the search text wherever it stands inside an element of the
// given tag name (nesting counted, case folded). The tag name, search text
// and replacement are the units the host reports, NUL units included; the
// text is walked to its NUL, and a comparison that would need a unit at or
// past that NUL does not match. An empty search text finds nothing, so the
// text comes back unchanged. Fails when the host cannot give the texts or
// memory runs out.
int ReplaceTextInsideTag(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 4) return 0;
  const char16_t* args[4];
  int64_t lengths[4];
  for (int k = 0; k < 4; ++k) {
    int32_t nReported = 0;
    args[k] = HostValueToString(cx, argv[k], &nReported);
    if (!args[k]) return 0;
    lengths[k] = nReported < 0 ? 0 : nReported;
  }
  const char16_t* text = args[0];
  const char16_t* name = args[1];
  const char16_t* search = args[2];
  const char16_t* replacement = args[3];
  const int64_t L0 = lengths[0], L1 = lengths[1], L2 = lengths[2], L3 = lengths[3];

  // Each replacement turns L2 units into L3, so the text's L0 units become
  // at most L0 * L3 / L2 (below 2^62: no wrap).
  int64_t outSize = (L2 > 0 && L3 > L2 ? L0 * L3 / L2 : L0) + 1;
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return 0;

  // The walk ends at the NUL, and never past the L0 units the room was
  // computed for, whatever the host reported.
  int64_t n = 0;
  while (n < L0 && text[n] != 0) ++n;
  auto matchesAt = [&](int64_t at, const char16_t* word, int64_t nWord) {
    return at + nWord <= n && UnitsEqualFolded(text + at, word, static_cast<size_t>(nWord));
  };
  char16_t* out = outText;
  int64_t depth = 0;
  for (int64_t i = 0; i < n;) {
    if (text[i] == u'<') {
      bool bOpen = L1 == 0 || matchesAt(i + 1, name, L1);
      bool bClose = !bOpen && i + 1 < n && text[i + 1] == u'/' && matchesAt(i + 2, name, L1);
      if (bOpen) ++depth;
      if (bClose && depth > 0) --depth;
      if (bOpen || bClose) {
        *out++ = text[i++];
        continue;
      }
    }
    if (depth > 0 && L2 > 0 && matchesAt(i, search, L2)) {
      std::memcpy(out, replacement, static_cast<size_t>(L3) * sizeof(char16_t));
      out += L3;
      i += L2;
      continue;
    }
    *out++ = text[i++];
  }
  *out = 0;
  int result = HostStringToValue(cx, outText, rval);
  MemFree(outText);
  return result;
}
