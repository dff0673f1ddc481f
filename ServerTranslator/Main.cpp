// Entry and registration, the translation session's lifecycle, the scanner
// callbacks of both passes, the end of the pre pass with label insertion, the
// merge that ends the post pass, and the two text services: every native the
// host reaches, and the fixed routines of both pass ends written as a
// pipeline. The work they call on lives below them: Pre and PostRecord
// (what the callbacks do in each pass), Labels, LockWalk, AttrMerge and
// HiliteColor (the merge's stages), TextReplace and Utility (the services).
//
// Rules local to this file: every native checks its argument count before it
// touches anything; a host operation's slot is re-read right before each
// call; every text made here is released before the native returns.
#include "Main.h"

#include <cstring>
#include <string_view>

#include "Assert.h"
#include "AttrMerge.h"
#include "HiliteColor.h"
#include "Labels.h"
#include "LockWalk.h"
#include "Memory.h"
#include "PostRecord.h"
#include "Pre.h"
#include "Session.h"
#include "StringArray.h"
#include "Text16.h"
#include "TextReplace.h"
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
  HostText text = HostReadText(cx, argv[0]);
  int32_t offset = HostReadInt32(cx, argv[1]);
  if (!text.text) return Succeed(rval);
  if (gbPreTranslate) {
    PreDirective(text.text, text.length, offset);
    return Succeed(rval);
  }
  int32_t label = 0;
  if (ReadLabelComment(text.text, &label))
    PostRecordLabelComment(offset, text.length, label);
  return Succeed(rval);
}

int OpenTagBegin(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 2) return 0;
  HostText name = HostReadText(cx, argv[0]);
  int32_t offset = HostReadInt32(cx, argv[1]);
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
  HostText name = HostReadText(cx, argv[0]);
  HostText value = HostReadText(cx, argv[1]);
  if (name.length == 0) name = value;
  if (gbPreTranslate) {
    if (name.text && value.text) PreAttributeVX(name.text, value.text);
    return Succeed(rval);
  }
  static const std::u16string_view kLabelName = char16_literal(kLabelAttrName);
  if (name.text && name.text == kLabelName) {
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
  int32_t endOffset = HostReadInt32(cx, argv[0]);
  HostText closing = HostReadText(cx, argv[1]);
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
  HostText name = HostReadText(cx, argv[0]);
  int32_t offset = HostReadInt32(cx, argv[1]);
  if (gbPreTranslate) {
    if (name.text) PreCloseTagBegin(name.text, offset);
    return Succeed(rval);
  }
  PostRecordCloseTagBegin(offset, IsTitle(name.text));
  return Succeed(rval);
}

int CloseTagEnd(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 1) return 0;
  int32_t endOffset = HostReadInt32(cx, argv[0]);
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

namespace {

// Writes head, the decimal digits of number (not negative) and tail at out,
// as the label formats put them; returns the end. LabelledPageSize counts
// these units.
template <size_t nHead, size_t nTail>
char16_t* WriteLabel(char16_t* out, const char16_t (&head)[nHead], const char16_t (&tail)[nTail], int32_t number) {
  std::memcpy(out, head, (nHead - 1) * sizeof(char16_t));
  out += nHead - 1;
  char16_t digits[10];
  int nDigits = 0;
  uint32_t n = static_cast<uint32_t>(number);
  do {
    digits[nDigits++] = static_cast<char16_t>(u'0' + n % 10);
    n /= 10;
  } while (n != 0);
  while (nDigits > 0) *out++ = digits[--nDigits];
  std::memcpy(out, tail, (nTail - 1) * sizeof(char16_t));
  return out + nTail - 1;
}

// Writes the page with a label comment at every place of gOffsetArray and a
// label attribute at every place of gAttrOffsetArray, into a new text sized
// by LabelledPageSize. Returns null when memory runs out or a place is out of
// order or beyond the page, in which case nothing is left allocated. Its
// length goes to *pLength.
char16_t* InsertLabels(const char16_t* page, int64_t* pLength) {
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
    outPtr = bComment ? WriteLabel(outPtr, kLabelCommentHead, kLabelCommentTail, i++)
                      : WriteLabel(outPtr, kLabelAttrHead, kLabelAttrTail, j++);
    p = o;
  }
  std::memcpy(outPtr, page + p, static_cast<size_t>(nPage - p + 1) * sizeof(char16_t));
  outPtr += nPage - p;
  QZ_ASSERT(outPtr - outText < outSize);
  *pLength = outPtr - outText;
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
  int64_t nOut = 0;
  char16_t* outText = InsertLabels(page, &nOut);
  if (!outText) return 0;
  int result = HostStringToValue(cx, outText, rval, static_cast<size_t>(nOut));
  MemFree(outText);
  return result;
}

// ---------------------------------------------------------------------------
// The end of the post pass: endPostTranslate merges the page source with the
// server's output in three stages. RemoveLabels cuts the labels out of the
// output and moves the recorded offsets into the label-free text; AddLocks
// replaces each piece of server output between two labels with lock markup
// carrying the page's server code; AddAttributes gives labelled tags that
// the server changed their page attributes and a translated-value attribute.
// The server's output and the scanner's report on it are ordinary input:
// whatever they hold fails the merge cleanly or is passed over (each routine
// says which), and every buffer a stage makes is released on every path.

namespace {

// IntArrayGetNext4 over arrays read as far as the given counts, written
// out for the label removal, which asks once per label and tag of the
// output: the array whose next element is smallest, the later one at equal
// values. At least one array has an element left.
inline IntArray* NextOfFour(IntArray* a0, int32_t i0, int32_t n0, IntArray* a1, int32_t i1, int32_t n1, IntArray* a2,
                            int32_t i2, int32_t n2, IntArray* a3, int32_t i3, int32_t n3) {
  IntArray* best = nullptr;
  int32_t bestValue = 0;
  auto consider = [&](IntArray* a, int32_t i, int32_t n) {
    if (i < n && (!best || a->pData[i] <= bestValue)) {
      best = a;
      bestValue = a->pData[i];
    }
  };
  consider(a0, i0, n0);
  consider(a1, i1, n1);
  consider(a2, i2, n2);
  consider(a3, i3, n3);
  QZ_ASSERT(best != nullptr);
  return best;
}

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
  const int64_t n = static_cast<int64_t>(TextLength(serverText));
  if (n >= INT32_MAX) return nullptr;
  const int64_t outSize = n + 1;
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return nullptr;

  IntArray* comments = &gFromServerOffsetArray;
  IntArray* attrs = &gAttrFromServerOffsetArray;
  IntArray* begins = &gFromServerTagBeginArray;
  IntArray* ends = &gFromServerTagEndArray;
  const int32_t nComments = LabelCommentCount();
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
    IntArray* next = NextOfFour(comments, i, nComments, attrs, j, nAttrs, begins, k, nBegins, ends, l, nEnds);
    const int64_t pos = inPtr - serverText;
    int64_t v, cut;
    if (next == begins || next == ends) {
      int32_t* entry = next == begins ? &begins->pData[k++] : &ends->pData[l++];
      *entry = IntArrayClamp(*entry - removed);
      continue;
    }
    if (next == comments) {
      v = comments->pData[i];
      if (!IsLabelNumber(gLabelArray.pData[i])) {
        comments->pData[i++] = IntArrayClamp(v - removed);
        continue;
      }
      cut = gFromServerLengthArray.pData[i];
      bFits = cut >= 0 && v >= pos && v + cut <= n;
      if (!bFits) break;
      comments->pData[i++] = IntArrayClamp(v - removed);
    } else {
      v = attrs->pData[j];
      cut = LabelAttrCut(serverText, n, v);
      bFits = v >= pos && cut >= 0;
      if (!bFits) break;
      attrs->pData[j] = IntArrayClamp(v - removed);
      if (j < gAttrFromServerLengthArray.nSize)
        gAttrFromServerLengthArray.pData[j] = IntArrayClamp(gAttrFromServerLengthArray.pData[j] - cut);
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

// Builds the locked text into *locked (NUL-terminated; the caller releases
// its storage) and moves the labelled-tag offsets into it. On failure
// returns false with nothing held: no locked text, no attribute text, no
// highlight index.
bool AddLocks(const char16_t* origText, const char16_t* labelFree, int64_t nLabelFree, const char16_t* lockBeginFormat,
              const char16_t* lockEndText, const char16_t* translatedValue, bool bLockEmptyPrefixedTags,
              StringBuffer* locked) {
  *locked = StringBuffer{};
  LockContext ctx;
  bool bOk = LockContextInit(&ctx, origText, labelFree, nLabelFree, lockBeginFormat, lockEndText, translatedValue,
                             bLockEmptyPrefixedTags, locked) &&
             StringBufferCreate(locked);
  LockCursor cursor{};
  LockPiece piece{};
  LockStep step = kLockFailed;
  while (bOk && (step = LockNextPiece(&ctx, &cursor, &piece)) == kLockPiece) bOk = LockAppendPiece(&ctx, &cursor, piece);
  bOk = bOk && step == kLockDone && LockAppendRest(&ctx, &cursor);
  LockContextRelease(&ctx);
  if (!bOk) {
    MemFree(locked->pData);
    *locked = StringBuffer{};
  }
  return bOk;
}

// ---------------------------------------------------------------------------
// Translated-value attributes

// Writes the merged page: the locked text with each changed labelled tag's
// attribute text replaced by the page's and followed by its translated-value
// attribute (AttrMergeTag). Returns the new text, or null with nothing held
// when memory runs out or a labelled tag does not fit as AttrMergeTag says.
// Its length goes to *pLength.
char16_t* AddAttributes(const char16_t* origText, const char16_t* lockedText, int64_t nLocked, int64_t* pLength) {
  const int64_t outSize = AttrMergeSize(nLocked);
  char16_t* outText = TextAlloc(outSize);
  if (!outText) return nullptr;
  AttrMerge merge{origText, static_cast<int64_t>(TextLength(origText)), lockedText, nLocked, outText, outText, outSize,
                  0, 0, 0};
  const int32_t n = AttrMergeTagCount();
  bool bOk = true;
  for (int32_t k = 0; k < n && bOk; ++k) bOk = AttrMergeTag(&merge, k);
  if (!bOk || !AttrMergeRest(&merge)) {
    MemFree(outText);
    return nullptr;
  }
  const char16_t* outPtr = merge.outPtr;
  QZ_ASSERT(outPtr - outText < outSize);
  *pLength = outPtr - outText;
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
  // Each stage's input is released as soon as the next stage has its text,
  // so that at most two texts of the merged page's size are held at once.
  MemFree(labelFree);
  int64_t nMerged = 0;
  char16_t* merged = AddAttributes(origText, locked.pData, locked.nSize - 1, &nMerged);
  MemFree(locked.pData);
  int result = merged ? HostStringToValue(cx, merged, rval, static_cast<size_t>(nMerged)) : 0;
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

// replaceTextInsideTag(text, tag name, search, replacement): the text with
// the search text replaced inside elements of the tag name. The host's
// lengths count; see StringReplaceTextInsideTag. Fails when the host cannot
// give the texts or memory runs out.
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
  char16_t* result =
      StringReplaceTextInsideTag(args[0], lengths[0], args[1], lengths[1], args[2], lengths[2], args[3], lengths[3]);
  if (!result) return 0;
  int ok = HostStringToValue(cx, result, rval);
  MemFree(result);
  return ok;
}
