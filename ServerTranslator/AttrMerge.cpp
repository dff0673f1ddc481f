// The translated-value attribute stage. A labelled tag is an ordinary tag of
// the page that got a label attribute and came back from the server with it.
// Where the server changed its attribute text, the page's own attribute text
// goes back into the tag, followed by the attribute
// ' qzTranslatedValue="<record> hilitecolor=%22Dyn%20Up-to-Date%20Color%22"'
// whose record is the tag's entry in gEncodedAttrs: the server's attributes,
// encoded.
//
// Rules local to this file: offsets, lengths and label numbers come from the
// server's output and the pre pass, so each is checked against the text or
// array it indexes; a tag that does not fit is passed over, tags out of
// order fail the stage. Every write stays within outSize.
#include "AttrMerge.h"

#include <cstring>
#include <iterator>

#include "Session.h"
#include "Text16.h"

namespace {

// The attribute is kAttrHead, the record, kAttrTail: what it writes besides
// the record is kAttrOutput units.
constexpr char16_t kAttrHead[] = u" qzTranslatedValue=\"";
constexpr char16_t kAttrTail[] = u" hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";
constexpr int64_t kAttrOutput = 64;
static_assert(std::size(kAttrHead) - 1 + std::size(kAttrTail) - 1 == kAttrOutput);

// Writes the attribute with the record's n units at out; returns its end.
// A NUL follows it, as after every write of the merged page so far.
char16_t* WriteAttr(char16_t* out, const char16_t* record, int64_t n) {
  constexpr size_t nHead = std::size(kAttrHead) - 1;
  constexpr size_t nTail = std::size(kAttrTail) - 1;
  std::memcpy(out, kAttrHead, nHead * sizeof(char16_t));
  out += nHead;
  std::memcpy(out, record, static_cast<size_t>(n) * sizeof(char16_t));
  out += n;
  std::memcpy(out, kAttrTail, nTail * sizeof(char16_t));
  out += nTail;
  *out = 0;
  return out;
}

int32_t Min(int32_t a, int32_t b) { return a < b ? a : b; }

// Labelled tags of the page: entries of both pre-pass arrays.
int32_t SourceTagCount() { return Min(gAttrOffsetArray.nSize, gAttrLengthArray.nSize); }

// The next record of the encoded-attribute list from *pPos on. A record
// whose NUL is missing (the list was changed behind recording's back) reads
// as empty.
const char16_t* NextRecord(int64_t* pPos, int64_t* pLength) {
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

// The extension step over the server's attribute text, srv's first n units.
// When it is followed by white space and then by a, the unit that follows
// the page's attribute text (for a ">" also "/>", when the page's text ends
// in "/"), returns the count that takes that white space in; -1 when the
// text is not extended. *pnRead gets how many units of srv were read.
int64_t ExtendSpan(const char16_t* srv, int64_t n, char16_t a, bool bPageSlash, int64_t* pnRead) {
  *pnRead = n + 1;
  if (a == srv[n] || srv[n] >= 128) return -1;
  for (int64_t j = 1;; ++j) {
    *pnRead = n + j + 1;
    if (!IsWhiteUnit(srv[n + j - 1])) return -1;
    const char16_t u = srv[n + j];
    if (a != u'>' ? u == a : u == u'>') return n + j;
    if (a == u'>' && u == u'/' && bPageSlash && srv[n + j + 1] == u'>') {
      *pnRead = n + j + 2;
      return n + j + 1;
    }
    if (u >= 128) return -1;
  }
}

// The trimming step after an extension to k units: where the page's text
// (m units) and the server's end in the same white space before their
// anchors (their last units, or those before a final "/" each, when a is
// ">"), that white space stays after the inserted attribute.
int64_t TrimSpan(const char16_t* page, int64_t m, const char16_t* srv, int64_t k, char16_t a) {
  if (k == m) return k;
  int64_t p = m, q = k;
  if (a == u'>') {
    p = m - 1;
    q = k - 1;
    if (p >= 0 && page[p] == u'/' && srv[q] == u'/') {
      p = m - 2;
      q = k - 2;
    }
  }
  if (p < 0 || q < 0 || page[p] != srv[q] || !IsWhiteUnit(srv[q])) return k;
  int64_t t = 0;
  while (p - 1 - t >= 0 && q - 1 - t >= 0 && page[p - 1 - t] == srv[q - 1 - t] && IsWhiteUnit(srv[q - 1 - t])) ++t;
  return q - t;
}

// How many locked-text units from s the page's attribute text
// (origText[o, o + m)) replaces: the server's n units, extended over
// trailing white space to the unit that follows the page's text, then
// trimmed back where both texts end in the same white space. *pReadEnd gets
// the end of what was read.
int64_t AttrSpan(const char16_t* origText, int64_t o, int64_t m, const char16_t* locked, int64_t s, int64_t n,
                 int64_t* pReadEnd) {
  const char16_t a = origText[o + m];
  const char16_t* srv = locked + s;
  int64_t nRead = 0;
  const int64_t k = ExtendSpan(srv, n, a, m > 0 && origText[o + m - 1] == u'/', &nRead);
  *pReadEnd = s + nRead;
  return k < 0 ? n : TrimSpan(origText + o, m, srv, k, a);
}

}  // namespace

// Labelled tags that came back: entries of all three post-pass arrays.
int32_t AttrMergeTagCount() {
  return Min(gAttrLabelArray.nSize, Min(gAttrFromServerOffsetArray.nSize, gAttrFromServerLengthArray.nSize));
}

// Units of the merged page at most, NUL included, for a locked text of
// nLocked units: room for every tag to take its page attribute text and its
// attribute in full. A server loop can repeat one labelled tag many times,
// each copy taking the same page text, so the page's length is no bound.
int64_t AttrMergeSize(int64_t nLocked) {
  const int32_t n = AttrMergeTagCount();
  const int32_t nSourceTags = SourceTagCount();
  int64_t outSize = nLocked + 1 + kAttrOutput * int64_t{n} + int64_t{gEncodedAttrs.nSize};
  for (int32_t k = 0; k < n; ++k) {
    const int32_t label = gAttrLabelArray.pData[k];
    if (label >= 0 && label < nSourceTags && gAttrLengthArray.pData[label] > 0)
      outSize += gAttrLengthArray.pData[label];
  }
  return outSize;
}

// Labelled tag k: when the server changed its attribute text, copies the
// locked text up to it, writes the page's attribute text and the
// translated-value attribute, and moves the copy position past the server's
// attribute text. A tag lying inside a replaced piece (-1), outside the
// texts, or with a label the pre pass did not give, keeps the server's text.
// False when the page's attribute length is negative or the tag starts
// inside text already read for an earlier tag (entries out of order or
// overlapping); the caller then drops the merged page.
bool AttrMergeTag(AttrMerge* merge, int32_t k) {
  int64_t nRecord = 0;
  const char16_t* record = NextRecord(&merge->recordPos, &nRecord);
  const int64_t s = gAttrFromServerOffsetArray.pData[k];
  // Negative when the label attribute's blank was the tag's closing text:
  // the server left no attribute text.
  const int64_t nServer = gAttrFromServerLengthArray.pData[k] < 0 ? 0 : gAttrFromServerLengthArray.pData[k];
  const int32_t label = gAttrLabelArray.pData[k];
  if (s == -1 || label < 0 || label >= SourceTagCount()) return true;
  const int64_t o = gAttrOffsetArray.pData[label];
  const int64_t m = gAttrLengthArray.pData[label];
  if (s < 0 || s + nServer > merge->nLocked) return true;
  if (m < 0 || s < merge->readEnd) return false;
  if (o < 0 || o + m > merge->nOrig) return true;
  int64_t tagReadEnd = 0;
  const int64_t span = AttrSpan(merge->origText, o, m, merge->locked, s, nServer, &tagReadEnd);
  merge->readEnd = tagReadEnd > s + span ? tagReadEnd : s + span;
  if (span == m && std::memcmp(merge->locked + s, merge->origText + o, static_cast<size_t>(m) * sizeof(char16_t)) == 0)
    return true;
  const int64_t room = merge->outSize - (merge->outPtr - merge->outText);
  if (s < merge->copyPos || (s - merge->copyPos) + m + kAttrOutput + nRecord + 1 > room) return false;
  std::memcpy(merge->outPtr, merge->locked + merge->copyPos, static_cast<size_t>(s - merge->copyPos) * sizeof(char16_t));
  merge->outPtr += s - merge->copyPos;
  std::memcpy(merge->outPtr, merge->origText + o, static_cast<size_t>(m) * sizeof(char16_t));
  merge->outPtr += m;
  merge->outPtr = WriteAttr(merge->outPtr, record, nRecord);
  merge->copyPos = s + span;
  return true;
}

// Copies the rest of the locked text with its NUL. False when it does not
// fit, which only a changed record list can cause.
bool AttrMergeRest(AttrMerge* merge) {
  const int64_t nRest = merge->nLocked - merge->copyPos;
  if (nRest + 1 > merge->outSize - (merge->outPtr - merge->outText)) return false;
  std::memcpy(merge->outPtr, merge->locked + merge->copyPos, static_cast<size_t>(nRest + 1) * sizeof(char16_t));
  merge->outPtr += nRest;
  return true;
}
