// Labels: how much room the labelled page needs, which label comments of
// the server's output the merge can use, and where a label attribute that
// came back ends. The server's output is ordinary input, so everything read
// from it is checked against the text or array it indexes.
#include "Labels.h"

#include <cstring>
#include <iterator>

#include "HostContract.h"
#include "Session.h"
#include "Text16.h"
#include "char16.h"

namespace {

int32_t Min(int32_t a, int32_t b) { return a < b ? a : b; }

// Label numbers up to 7 digits fit the 5 units each label gets beyond its
// format's 15 or 11; every number past 9 999 999 needs one unit more for each
// further digit. Among the labels 0 .. n - 1, those from 10^k on have more
// than k digits, so the units beyond 7 digits are the sum of n - 10^k over
// k = 7, 8, 9 wherever it is positive (no int32 label has more than 10
// digits).
int64_t UnitsBeyondSevenDigits(int32_t nLabels) {
  int64_t nUnits = 0;
  for (int64_t from = 10000000; from <= 1000000000; from *= 10)
    if (nLabels > from) nUnits += nLabels - from;
  return nUnits;
}

}  // namespace

// Code units the labelled page needs, NUL included: nPage units of page,
// nComments label comments and nAttrs label attributes, numbered from 0.
// Never short, for any count an IntArray can hold; pages whose labels stay
// below 10 000 000 get 20 units per comment and 16 per attribute. Computed in
// 64 bits, so it cannot wrap.
int64_t LabelledPageSize(int64_t nPage, int32_t nComments, int32_t nAttrs) {
  return nPage + 20 * int64_t{nComments} + 16 * int64_t{nAttrs} + UnitsBeyondSevenDigits(nComments) +
         UnitsBeyondSevenDigits(nAttrs) + 1;
}

// Label comments that came back with all three of their entries. Recording
// appends them whole; only a change behind its back makes them differ.
int32_t LabelCommentCount() {
  return Min(gFromServerOffsetArray.nSize, Min(gFromServerLengthArray.nSize, gLabelArray.nSize));
}

// True when label names a label place of the pre pass. Other numbers come
// from label comments that the page's author typed or the server made up;
// they are not labels, and their text stays in the page.
bool IsLabelNumber(int32_t label) { return label >= 0 && label < Min(gOffsetArray.nSize, gOffsetTypeArray.nSize); }

// Units of the label attribute that came back at offset at of serverText (n
// units): from its leading blank through the blank after it. Output that
// lost that blank (a minifier, or a server that dropped the tag's other
// attributes) ends it at the tag's closing "/>" or ">" instead; a search
// that leaves the tag would cut page text. -1 when there is no label
// attribute at that offset (the server moved or rewrote it) or its tag does
// not end.
int64_t LabelAttrCut(const char16_t* serverText, int64_t n, int64_t at) {
  static const char16_t* const kLead = char16_literal(kLabelAttrLead);
  const int64_t nLead = static_cast<int64_t>(std::size(kLabelAttrLead)) - 1;
  if (at < 0 || at + nLead > n || std::memcmp(serverText + at, kLead, static_cast<size_t>(nLead) * sizeof(char16_t)) != 0) return -1;
  int64_t w = at + nLead;
  while (w < n && serverText[w] != u' ' && serverText[w] != u'>' && serverText[w] != u'<') ++w;
  if (w >= n || serverText[w] == u'<') return -1;
  if (serverText[w] == u' ')
    ++w;
  else if (serverText[w - 1] == u'/')
    --w;
  return w - at;
}

// Reads a label comment's number as the host library's scanner reads
// kLabelCommentScan: the lead exactly, white space, then a decimal number
// with an optional sign, held at the int range. Written out because the
// post pass reads every directive of the server's output this way.
bool ReadLabelComment(const char16_t* text, int32_t* pLabel) {
  static const char16_t* const kLead = char16_literal(kLabelCommentLead);
  const char16_t* p = text;
  for (const char16_t* q = kLead; *q != 0; ++p, ++q)
    if (*p != *q) return false;
  while (IsWhiteUnit(*p)) ++p;
  bool bNegative = false;
  if (*p == u'-' || *p == u'+') bNegative = *p++ == u'-';
  if (*p < u'0' || *p > u'9') return false;
  int64_t value = 0;
  for (; *p >= u'0' && *p <= u'9'; ++p) {
    value = value * 10 + (*p - u'0');
    if (value > int64_t{INT32_MAX} + 1) value = int64_t{INT32_MAX} + 1;
  }
  if (bNegative) value = -value;
  *pLabel = value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
  return true;
}
