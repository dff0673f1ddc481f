// Entry and registration, the translation session's lifecycle, the scanner
// callbacks of both passes, the end of the pre pass with label insertion, and
// the two text services.
//
// Rules local to this file: every native checks its argument count before it
// touches anything; a host operation's slot is re-read right before each
// call; every text made here is released before the native returns.
#include "Main.h"

#include <cstring>
#include <string>

#include "Assert.h"
#include "Memory.h"
#include "Pre.h"
#include "StringArray.h"
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

struct ScriptFunction {
  const char* name;
  Native fn;
  int nargs;
};

// Registration order and arities are part of the contract with the
// translator script; the arity is what the host is told, not what each
// function accepts.
const ScriptFunction kScriptFunctions[] = {
    {"initialize", Initialize, 0},
    {"beginPreTranslate", BeginPreTranslate, 2},
    {"endPreTranslate", EndPreTranslate, 1},
    {"setLineEndingsToMatch", SetLineEndingsToMatch, 2},
    {"replaceTextInsideTag", ReplaceTextInsideTag, 4},
    {"beginPostTranslate", BeginPostTranslate, 0},
    {"endPostTranslate", EndPostTranslate, 2},
    {"cleanup", Cleanup, 0},
    {"directive", Directive, 2},
    {"openTagBegin", OpenTagBegin, 2},
    {"openTagEnd", OpenTagEnd, 2},
    {"attribute", Attribute, 2},
    {"closeTagBegin", CloseTagBegin, 2},
    {"closeTagEnd", CloseTagEnd, 1},
    {"text", Text, 2},
};

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
  for (const ScriptFunction& f : kScriptFunctions) {
    DefineFunctionOp define = HostOp<DefineFunctionOp>(kSlotDefineFunction);
    if (!define) return 0;
    result = define(qzEnv[kSlotLibraryObject], f.name, f.fn, f.nargs);
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
  return text && TextLength(text) == 5 && UnitsEqualFolded(text, kTitle, 5);
}

// Appends one attribute's entry to the current record of the encoded list:
// name=value and a blank, the value quoted with %22 when it holds a blank.
// When memory runs out the entry is dropped whole; the record still ends at
// the tag's end.
void RecordEncodedAttribute(const TextArg& name, const TextArg& value) {
  static const char16_t* const kEquals = char16_literal(u"=");
  static const char16_t* const kQuote = char16_literal(u"%22");
  static const char16_t* const kBlank = char16_literal(u" ");
  bool bQuoted = !value.text || std::char_traits<char16_t>::find(value.text, TextLength(value.text), u' ');
  char16_t* pName = EncodeURL(name.text, name.length);
  char16_t* pValue = EncodeURL(value.text, value.text ? value.length : 0);
  if (pName && pValue) {
    StringBufferAdd(&gEncodedAttrs, pName, static_cast<int32_t>(TextLength(pName)));
    StringBufferAdd(&gEncodedAttrs, kEquals, 1);
    if (bQuoted) StringBufferAdd(&gEncodedAttrs, kQuote, 3);
    StringBufferAdd(&gEncodedAttrs, pValue, static_cast<int32_t>(TextLength(pValue)));
    if (bQuoted) StringBufferAdd(&gEncodedAttrs, kQuote, 3);
    StringBufferAdd(&gEncodedAttrs, kBlank, 1);
  }
  MemFree(pName);
  MemFree(pValue);
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
  if (char16_swscanf(text.text, char16_literal(u"<!--QZVX %d"), &label) == 1) {
    IntArrayAdd(&gFromServerOffsetArray, offset);
    IntArrayAdd(&gFromServerLengthArray, text.length);
    IntArrayAdd(&gLabelArray, label);
  }
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
  IntArrayAdd(&gFromServerTagBeginArray, offset);
  if (IsTitle(name.text)) gFromServerTitleInsideStart = gFromServerTagEndArray.nSize;
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
  static const char16_t* const kLabelName = char16_literal(u"qzvx");
  if (name.text && TextLength(name.text) == 4 && std::char_traits<char16_t>::compare(name.text, kLabelName, 4) == 0) {
    ValueToIntegerOp toInteger = HostOp<ValueToIntegerOp>(kSlotValueToInteger);
    if (toInteger) toInteger(cx, argv[1], &gMarker);
    return Succeed(rval);
  }
  if (gMarker == -1) return Succeed(rval);
  RecordEncodedAttribute(name, value);
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
    static const char16_t kNul[1] = {0};
    IntArrayAdd(&gAttrFromServerOffsetArray, static_cast<int32_t>(gOffset));
    IntArrayAdd(&gAttrFromServerLengthArray, static_cast<int32_t>(length));
    IntArrayAdd(&gAttrLabelArray, static_cast<int32_t>(gMarker));
    StringBufferAdd(&gEncodedAttrs, kNul, 1);
  }
  IntArrayAdd(&gFromServerTagEndArray, endOffset);
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
  if (IsTitle(name.text)) gFromServerTitleInsideEnd = gFromServerTagBeginArray.nSize;
  IntArrayAdd(&gFromServerTagBeginArray, offset);
  return Succeed(rval);
}

int CloseTagEnd(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 1) return 0;
  int32_t endOffset = ReadInt(cx, argv[0]);
  if (gbPreTranslate)
    PreCloseTagEnd(endOffset);
  else
    IntArrayAdd(&gFromServerTagEndArray, endOffset);
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

// Writes the page with a label comment at every place of gOffsetArray and a
// label attribute at every place of gAttrOffsetArray, into a new text of
// outSize units. Returns null when memory runs out or a place is out of
// order or beyond the page, in which case nothing is left allocated.
char16_t* InsertLabels(const char16_t* page) {
  static const char16_t* const kCommentFormat = char16_literal(u"<!--QZVX %d -->");
  static const char16_t* const kAttrFormat = char16_literal(u" qzvx=\"%d\" ");
  const int64_t nPage = static_cast<int64_t>(TextLength(page));
  const int32_t nOff = gOffsetArray.nSize;
  const int32_t nAttr = gAttrOffsetArray.nSize;
  // Each label's format with room for a 7-digit number: 15 + 5 and 11 + 5.
  const int64_t outSize = nPage + 20 * int64_t{nOff} + 16 * int64_t{nAttr} + 1;
  char16_t* outText = static_cast<char16_t*>(MemAlloc(static_cast<size_t>(outSize) * sizeof(char16_t)));
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

namespace {

bool MatchesFolded(const char16_t* text, const char16_t* word, size_t nWord) {
  for (size_t k = 0; k < nWord; ++k)
    if (FoldUnit(text[k]) != FoldUnit(word[k])) return false;  // stops at the text's NUL
  return true;
}

}  // namespace

// Replaces the search text wherever it stands inside an element of the
// given tag name (nesting counted, case folded). An empty search text finds
// nothing, so the text comes back unchanged.
int ReplaceTextInsideTag(void* cx, void*, uint32_t argc, ScriptValue* argv, ScriptValue* rval) {
  if (argc != 4) return 0;
  const char16_t* args[4];
  for (int k = 0; k < 4; ++k) {
    int32_t nReported = 0;
    args[k] = HostValueToString(cx, argv[k], &nReported);
    if (!args[k]) return 0;
  }
  const char16_t* text = args[0];
  const char16_t* name = args[1];
  const char16_t* search = args[2];
  const char16_t* replacement = args[3];
  // Lengths are measured, not taken from the host: the walk runs to the
  // NUL, so the output bound must be based on the same text.
  const int64_t L0 = static_cast<int64_t>(TextLength(text));
  const int64_t L1 = static_cast<int64_t>(TextLength(name));
  const int64_t L2 = static_cast<int64_t>(TextLength(search));
  const int64_t L3 = static_cast<int64_t>(TextLength(replacement));

  // Each replacement turns L2 units into L3; L0 * L3 stays below 2^62.
  int64_t outSize = (L2 > 0 && L3 > L2 ? L0 * L3 / L2 : L0) + 1;
  if (static_cast<uint64_t>(outSize) > SIZE_MAX / sizeof(char16_t)) return 0;
  char16_t* outText = static_cast<char16_t*>(MemAlloc(static_cast<size_t>(outSize) * sizeof(char16_t)));
  if (!outText) return 0;

  char16_t* out = outText;
  const char16_t* p = text;
  int64_t depth = 0;
  while (*p) {
    if (*p == u'<') {
      if (L1 == 0 || MatchesFolded(p + 1, name, static_cast<size_t>(L1))) {
        ++depth;
        *out++ = *p++;
        continue;
      }
      if (p[1] == u'/' && MatchesFolded(p + 2, name, static_cast<size_t>(L1))) {
        if (depth > 0) --depth;
        *out++ = *p++;
        continue;
      }
    }
    if (depth > 0 && L2 > 0 && MatchesFolded(p, search, static_cast<size_t>(L2))) {
      std::memcpy(out, replacement, static_cast<size_t>(L3) * sizeof(char16_t));
      out += L3;
      p += L2;
      continue;
    }
    *out++ = *p++;
  }
  *out = 0;
  int result = HostStringToValue(cx, outText, rval);
  MemFree(outText);
  return result;
}
