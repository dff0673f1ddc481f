// Post-pass recording: the label comments, tag boundaries, title indexes and
// labelled tags with their encoded attributes that the scanner callbacks
// report from the server's output, appended to the session arrays for the
// merge.
//
// Rule local to this file: every record is appended whole or not at all. A
// record is one label comment (offset, length, number), one tag (its begin,
// then its end), one labelled tag (offset, length, label and the NUL that
// closes its encoded attributes), or one attribute's entry in the encoded
// list. When an append runs out of memory, what the record had appended is
// taken back: parallel arrays stay in step, entry k of each still describes
// the same thing, and the record is missing as if the server had not sent it.
#include "PostRecord.h"

#include <string>

#include "Memory.h"
#include "Session.h"
#include "Text16.h"
#include "Utility.h"

namespace {

// Where the encoded record of the open tag being scanned starts.
int32_t sRecordStart;
// The title indexes as they stood before the tag being scanned: its record
// may still be lost at its end.
int32_t sTitleStartBefore = -1;
int32_t sTitleEndBefore = -1;

// Appends values[k] to arrays[k] for every k, or to none.
bool AppendAll(IntArray* const* arrays, const int32_t* values, int n) {
  for (int k = 0; k < n; ++k) {
    if (IntArrayAdd(arrays[k], values[k])) continue;
    while (k-- > 0) --arrays[k]->nSize;
    return false;
  }
  return true;
}

void RememberTitle() {
  sTitleStartBefore = gFromServerTitleInsideStart;
  sTitleEndBefore = gFromServerTitleInsideEnd;
}

void RestoreTitle() {
  gFromServerTitleInsideStart = sTitleStartBefore;
  gFromServerTitleInsideEnd = sTitleEndBefore;
}

}  // namespace

// A label comment that came back: its offset, its text's length, its number.
void PostRecordLabelComment(int32_t offset, int32_t length, int32_t label) {
  IntArray* const arrays[] = {&gFromServerOffsetArray, &gFromServerLengthArray, &gLabelArray};
  const int32_t values[] = {offset, length, label};
  AppendAll(arrays, values, 3);
}

// An open tag begins at offset; a title open tag's end will be the title's
// content start. The tag's encoded record, if it gets one, starts here.
void PostRecordOpenTagBegin(int32_t offset, bool bTitle) {
  RememberTitle();
  sRecordStart = gEncodedAttrs.nSize;
  if (!IntArrayAdd(&gFromServerTagBeginArray, offset)) return;
  if (bTitle) gFromServerTitleInsideStart = gFromServerTagEndArray.nSize;
}

// A close tag begins at offset; a title close tag's begin is the title's
// content end.
void PostRecordCloseTagBegin(int32_t offset, bool bTitle) {
  RememberTitle();
  const int32_t index = gFromServerTagBeginArray.nSize;
  if (!IntArrayAdd(&gFromServerTagBeginArray, offset)) return;
  if (bTitle) gFromServerTitleInsideEnd = index;
}

// The tag whose begin was recorded last ends. A tag whose begin was lost is
// lost whole: its end is not recorded either, and when the end cannot be,
// the begin and any title index it set are taken back.
void PostRecordTagEnd(int32_t endOffset) {
  if (gFromServerTagBeginArray.nSize <= gFromServerTagEndArray.nSize) return;
  if (IntArrayAdd(&gFromServerTagEndArray, endOffset)) return;
  --gFromServerTagBeginArray.nSize;
  RestoreTitle();
}

// One attribute's entry in the encoded record of the tag being scanned:
// name=value and a blank, the value in "%22" when it holds a blank (a
// missing value counts as one). Lost whole when memory runs out.
void PostRecordAttribute(const char16_t* name, int32_t nName, const char16_t* value, int32_t nValue) {
  static const char16_t* const kEquals = char16_literal(u"=");
  static const char16_t* const kQuote = char16_literal(u"%22");
  static const char16_t* const kBlank = char16_literal(u" ");
  const bool bQuoted = !value || std::char_traits<char16_t>::find(value, TextLength(value), u' ');
  const int32_t nBefore = gEncodedAttrs.nSize;
  StringBuffer* out = &gEncodedAttrs;
  bool bOk = EncodeURLAppend(out, name, nName) && StringBufferAdd(out, kEquals, 1) &&
             (!bQuoted || StringBufferAdd(out, kQuote, 3)) && EncodeURLAppend(out, value, value ? nValue : 0) &&
             (!bQuoted || StringBufferAdd(out, kQuote, 3)) && StringBufferAdd(out, kBlank, 1);
  if (!bOk) out->nSize = nBefore;
}

// The open tag being scanned carried label attribute label: its attribute
// text starts at offset and runs length units. Closes its encoded record;
// when that cannot be done the record's entries go too.
void PostRecordLabelledTag(int32_t offset, int32_t length, int32_t label) {
  static const char16_t kNul[1] = {0};
  IntArray* const arrays[] = {&gAttrFromServerOffsetArray, &gAttrFromServerLengthArray, &gAttrLabelArray};
  const int32_t values[] = {offset, length, label};
  const int32_t start = sRecordStart < gEncodedAttrs.nSize ? sRecordStart : gEncodedAttrs.nSize;
  if (AppendAll(arrays, values, 3)) {
    if (StringBufferAdd(&gEncodedAttrs, kNul, 1)) return;
    for (IntArray* a : arrays) --a->nSize;
  }
  gEncodedAttrs.nSize = start;
}
