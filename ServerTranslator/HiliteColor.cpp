// Highlight colouring: appends a piece of the label-free server output to the
// merge's buffer with its text runs wrapped in the dynamic-content font
// element and its elements marked with the highlight attribute.
//
// The recorded tags (gFromServerTagBeginArray and gFromServerTagEndArray,
// label-free offsets) are the host scanner's report on server output, so
// they are checked against the text before they are trusted. A merge builds
// one tag index over them (HiliteColorBegin): for every tag whether it fits
// the text, where its name ends, and the close tag that matches it. With it
// the first tag of a piece is a binary search and a matching close tag a
// lookup, so pages with tens of thousands of tags, most never closed, stay
// n log n. The index is the only storage this file owns; HiliteColorEnd
// releases it.
//
// A tag fits the text when its begin lies inside the text on a "<", it does
// not begin before an earlier tag, and its name (the units after "<" or "</"
// up to NUL, ">" or white space) ends before the next such tag begins. A
// piece whose colouring would have to rely on a tag that does not fit, or on
// an end offset outside the text, is appended plain, as the give-up rule
// does for every other mismatch between tags and text.
#include "HiliteColor.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "Assert.h"
#include "Memory.h"
#include "Session.h"
#include "Text16.h"

namespace {

struct TagIndex {
  const char16_t* pText;  // the label-free text the index describes
  int64_t nText;          // its length in units
  int32_t nTags;          // tags with both a begin and an end entry
  int32_t* pMaxBegin;     // [nTags] running maximum of the begin offsets
  int32_t* pBadBefore;    // [nTags + 1] count of tags that do not fit, before index k
  int32_t* pNameEnd;      // [nTags] position of the unit that ends the tag's name; -1: does not fit
  int32_t* pMatch;        // [nTags] matching close tag of an open tag, ignoring any limit; -1: none
  int32_t* pBelow;        // [nTags] build scratch: the open tag under this one on its name's stack
  int32_t* pSlots;        // [2 * nSlots] build scratch: per name, a tag of that name and its stack's top
  int32_t nSlots;         // a power of two, at least twice nTags
};

// The index of the current merge; null outside one.
TagIndex* gpTagIndex;

constexpr char16_t kFontOpen[] = u"<font hilitecolor=\"Dyn Up-to-Date Color\">";
constexpr char16_t kFontClose[] = u"</font>";
constexpr char16_t kTagAttribute[] = u" qzTranslatedValue=\"hilitecolor=%22Dyn%20Up-to-Date%20Color%22\"";
constexpr int32_t kFontOpenLength = std::size(kFontOpen) - 1;
constexpr int32_t kFontCloseLength = std::size(kFontClose) - 1;
constexpr int32_t kTagAttributeLength = std::size(kTagAttribute) - 1;
static_assert(kFontOpenLength == 41 && kFontCloseLength == 7 && kTagAttributeLength == 63);

bool EndsName(char16_t u) { return u == 0 || u == u'>' || IsWhiteUnit(u); }

bool TagFits(const TagIndex* index, int32_t k) { return index->pNameEnd[k] >= 0; }

// True when no tag with an index in [first, last] fails to fit.
bool RangeFits(const TagIndex* index, int32_t first, int32_t last) {
  if (first > last) return true;
  return index->pBadBefore[last + 1] == index->pBadBefore[first];
}

int64_t NameStart(const TagIndex* index, int32_t k) {
  int64_t begin = gFromServerTagBeginArray.pData[k];
  return index->pText[begin + 1] == u'/' ? begin + 2 : begin + 1;
}

// The units of a fitting tag's name and their count.
const char16_t* NameOf(const TagIndex* index, int32_t k, int64_t* pLength) {
  const int64_t start = NameStart(index, k);
  *pLength = index->pNameEnd[k] - start;
  return index->pText + start;
}

bool SameName(const TagIndex* index, int32_t a, int32_t b) {
  int64_t nA = 0, nB = 0;
  const char16_t* pA = NameOf(index, a, &nA);
  const char16_t* pB = NameOf(index, b, &nB);
  return nA == nB && std::memcmp(pA, pB, static_cast<size_t>(nA) * sizeof(char16_t)) == 0;
}

// The slot of the name of tag k (units compared exactly): the one that
// holds a tag of that name, or the empty one where it goes.
int32_t NameSlot(const TagIndex* index, int32_t k) {
  int64_t n = 0;
  const char16_t* name = NameOf(index, k, &n);
  // Seeded with the index's own address, which changes from run to run, so
  // that no server output can be written to make its names collide.
  uint32_t h = 2166136261u ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(index) >> 4);
  for (int64_t i = 0; i < n; ++i) h = (h ^ name[i]) * 16777619u;
  h ^= h >> 15;
  const uint32_t mask = static_cast<uint32_t>(index->nSlots) - 1;
  for (uint32_t s = h & mask;; s = (s + 1) & mask) {
    const int32_t held = index->pSlots[2 * s];
    if (held < 0 || SameName(index, held, k)) return static_cast<int32_t>(s);
  }
}

// First index in [0, nTags) whose running maximum is at least value, which
// is also the first tag that begins at or after value; nTags when there is
// none.
int32_t SearchMaxBegin(const TagIndex* index, int64_t value) {
  int32_t lo = 0, hi = index->nTags;
  while (lo < hi) {
    int32_t mid = lo + (hi - lo) / 2;
    if (index->pMaxBegin[mid] >= value)
      hi = mid;
    else
      lo = mid + 1;
  }
  return lo;
}

// Marks which tags fit the text and where their names end. Names are scanned
// up to the next placed tag at most, so the scans never overlap.
void MarkFittingTags(TagIndex* index) {
  const int32_t* pBegin = gFromServerTagBeginArray.pData;
  const int32_t n = index->nTags;
  int64_t runMax = INT64_MIN;
  for (int32_t k = 0; k < n; ++k) {
    int64_t b = pBegin[k];
    bool bPlaced = b >= 0 && b < index->nText && index->pText[b] == u'<' && b >= runMax;
    if (b > runMax) runMax = b;
    index->pMaxBegin[k] = static_cast<int32_t>(runMax);
    index->pNameEnd[k] = bPlaced ? 0 : -1;
  }
  int64_t bound = index->nText + 1;
  for (int32_t k = n - 1; k >= 0; --k) {
    if (index->pNameEnd[k] < 0) continue;
    int64_t j = NameStart(index, k);
    while (j < bound && !EndsName(index->pText[j])) ++j;
    index->pNameEnd[k] = j < bound ? static_cast<int32_t>(j) : -1;
    bound = pBegin[k];
  }
  index->pBadBefore[0] = 0;
  for (int32_t k = 0; k < n; ++k) index->pBadBefore[k + 1] = index->pBadBefore[k] + (TagFits(index, k) ? 0 : 1);
}

// Pairs open and close tags of each name, in scan order, with one stack per
// name: that is the depth count of the matching walk, in which only tags of
// exactly the same name whose name ends in ">" or white space count. The
// names do not overlap, so hashing them all is linear in the text.
void MatchTags(TagIndex* index) {
  for (int32_t k = 0; k < index->nTags; ++k) index->pMatch[k] = -1;
  for (int32_t s = 0; s < 2 * index->nSlots; ++s) index->pSlots[s] = -1;
  for (int32_t k = 0; k < index->nTags; ++k) {
    if (!TagFits(index, k) || index->pText[index->pNameEnd[k]] == 0) continue;
    const int32_t s = NameSlot(index, k);
    int32_t* pSlot = index->pSlots + 2 * s;
    if (pSlot[0] < 0) pSlot[0] = k;
    int32_t& top = pSlot[1];
    const bool bClose = index->pText[gFromServerTagBeginArray.pData[k] + 1] == u'/';
    if (!bClose) {
      index->pBelow[k] = top;
      top = k;
    } else if (top >= 0) {
      index->pMatch[top] = k;
      top = index->pBelow[top];
    }
  }
}

// Builds the index of the recorded tags over text; null when memory runs out.
TagIndex* BuildTagIndex(const char16_t* text, int64_t nText) {
  int64_t n = gFromServerTagBeginArray.nSize < gFromServerTagEndArray.nSize ? gFromServerTagBeginArray.nSize
                                                                            : gFromServerTagEndArray.nSize;
  if (n < 0 || !gFromServerTagBeginArray.pData || !gFromServerTagEndArray.pData) n = 0;
  // Offsets are 32-bit; a longer text cannot have been described by them.
  if (nText > INT32_MAX) return nullptr;
  int64_t nSlots = 16;
  while (nSlots < 2 * n) nSlots *= 2;
  if (nSlots > INT32_MAX / 2) return nullptr;
  const int64_t nInts = 5 * n + 1 + 2 * nSlots;
  const uint64_t nBytes = sizeof(TagIndex) + static_cast<uint64_t>(nInts) * sizeof(int32_t);
  if (nBytes > SIZE_MAX) return nullptr;
  TagIndex* index = static_cast<TagIndex*>(MemAlloc(static_cast<size_t>(nBytes)));
  if (!index) return nullptr;
  int32_t* pInts = reinterpret_cast<int32_t*>(index + 1);
  index->pText = text;
  index->nText = nText;
  index->nTags = static_cast<int32_t>(n);
  index->pMaxBegin = pInts;
  index->pNameEnd = pInts + n;
  index->pMatch = pInts + 2 * n;
  index->pBelow = pInts + 3 * n;
  index->pBadBefore = pInts + 4 * n;
  index->pSlots = pInts + 5 * n + 1;
  index->nSlots = static_cast<int32_t>(nSlots);
  MarkFittingTags(index);
  MatchTags(index);
  return index;
}

// The match of the open tag at openIndex under the matching walk's limit
// rule, and the last tag index that walk would look at.
int32_t MatchWithin(const TagIndex* index, int32_t openIndex, int64_t limit, int32_t* pLastSeen) {
  int32_t m = index->pMatch[openIndex];
  if (m >= 0 && gFromServerTagBeginArray.pData[m] < limit) {
    *pLastSeen = m;
    return m;
  }
  *pLastSeen = SearchMaxBegin(index, limit) - 1;
  return -1;
}

// True when the piece [start, end) lies inside the content of the title
// element that the scanner reported. The title tags' own text is not
// required to be exactly "<title>" and "</title>": a title tag with
// attributes or blanks is a title all the same, and markup inside it would
// show as text.
bool InsideTitle(const TagIndex* index, int64_t start, int64_t end) {
  int32_t iStart = gFromServerTitleInsideStart;
  int32_t iEnd = gFromServerTitleInsideEnd;
  if (iStart < 0 || iEnd < 0 || iStart >= gFromServerTagEndArray.nSize || iEnd >= gFromServerTagBeginArray.nSize)
    return false;
  int64_t titleInsideStart = gFromServerTagEndArray.pData[iStart];
  int64_t titleInsideEnd = gFromServerTagBeginArray.pData[iEnd];
  if (titleInsideStart < 0 || titleInsideEnd > index->nText) return false;
  return titleInsideStart <= start && end <= titleInsideEnd;
}

enum WalkResult { kWalkDone, kWalkFailed, kWalkGaveUp };

// Appends the piece with its markup; reports a failed append or a tag that
// does not fit the text (the caller then undoes and appends plain).
WalkResult ColourPiece(const TagIndex* index, StringBuffer* buffer, int64_t start, int64_t end) {
  const char16_t* inPtr = index->pText;
  const int32_t* pBegin = gFromServerTagBeginArray.pData;
  const int32_t* pEnd = gFromServerTagEndArray.pData;
  int32_t idx = SearchMaxBegin(index, start);
  int64_t next = idx < index->nTags ? pBegin[idx] : end;
  int64_t pos = start;
  for (;;) {
    if (pos >= end) return kWalkDone;
    if (next > pos) {
      int64_t runEnd = next < end ? next : end;
      if (!EmitText(buffer, inPtr + pos, static_cast<int32_t>(runEnd - pos))) return kWalkFailed;
      pos = runEnd;
      continue;
    }
    if (next < pos || !TagFits(index, idx)) return kWalkGaveUp;
    int64_t te;
    if (inPtr[next + 1] == u'/') {
      te = pEnd[idx];
      if (te < next || te > index->nText) return kWalkGaveUp;
      if (!StringBufferAddUnits(buffer, inPtr + next, te - next)) return kWalkFailed;
      ++idx;
    } else {
      int32_t lastSeen = idx;
      int32_t m = MatchWithin(index, idx, end, &lastSeen);
      if (!RangeFits(index, idx + 1, lastSeen)) return kWalkGaveUp;
      if (m < 0) m = idx;
      te = pEnd[m];
      // EmitTag needs at least one unit after the name it copies.
      if (te < next || te > index->nText || te <= index->pNameEnd[idx]) return kWalkGaveUp;
      if (!EmitTag(buffer, inPtr + next, static_cast<int32_t>(te - next))) return kWalkFailed;
      idx = m + 1;
    }
    next = idx < index->nTags ? pBegin[idx] : end;
    pos = te;
  }
}

}  // namespace

int HiliteColorBegin(const char16_t* inPtr, int32_t textLength) {
  HiliteColorEnd();
  gpTagIndex = BuildTagIndex(inPtr, textLength);
  return gpTagIndex != nullptr;
}

void HiliteColorEnd() {
  MemFree(gpTagIndex);
  gpTagIndex = nullptr;
}

// Appends inPtr[start, start+length) with highlighting. Returns 0 when an
// append runs out of memory (what was appended stays; the merge fails) or
// when the piece does not lie inside the text. Without an index of this
// merge it builds one for the call and releases it before returning.
int AddHiliteColor(StringBuffer* buffer, const char16_t* inPtr, int32_t start, int32_t length) {
  TagIndex* index = gpTagIndex;
  TagIndex* own = nullptr;
  if (!index || index->pText != inPtr) {
    own = BuildTagIndex(inPtr, static_cast<int64_t>(TextLength(inPtr)));
    if (!own) return 0;
    index = own;
  }
  const int64_t end = static_cast<int64_t>(start) + length;
  const int32_t nSizeAtEntry = buffer->nSize;
  int result;
  if (start < 0 || length < 0 || end > index->nText) {
    result = 0;
  } else if (InsideTitle(index, start, end)) {
    result = StringBufferAddUnits(buffer, inPtr + start, length);
  } else {
    switch (ColourPiece(index, buffer, start, end)) {
      case kWalkDone: result = 1; break;
      case kWalkFailed: result = 0; break;
      default:
        buffer->nSize = nSizeAtEntry;
        result = StringBufferAddUnits(buffer, inPtr + start, length);
        break;
    }
  }
  MemFree(own);
  return result;
}

// Appends a run, wrapped in the font element unless it is empty or all
// white space. A failed append returns 0 at once, possibly after the open
// font tag.
int EmitText(StringBuffer* buffer, const char16_t* text, int32_t length) {
  if (length <= 0) return 1;
  bool bWrap = false;
  for (int32_t i = 0; i < length && !bWrap; ++i) bWrap = !IsWhiteUnit(text[i]);
  if (bWrap && !StringBufferAdd(buffer, char16_literal(kFontOpen), kFontOpenLength)) return 0;
  if (!StringBufferAdd(buffer, text, length)) return 0;
  if (bWrap && !StringBufferAdd(buffer, char16_literal(kFontClose), kFontCloseLength)) return 0;
  return 1;
}

// Appends length units from tag (at a "<") with the highlight attribute
// right after the tag's name. The caller guarantees that the name ends
// before length runs out.
int EmitTag(StringBuffer* buffer, const char16_t* tag, int32_t length) {
  int32_t nName = 0;
  while (nName < length && !EndsName(tag[nName])) ++nName;
  length -= nName;
  QZ_ASSERT(length > 0);
  if (!StringBufferAdd(buffer, tag, nName)) return 0;
  if (!StringBufferAdd(buffer, char16_literal(kTagAttribute), kTagAttributeLength)) return 0;
  return StringBufferAdd(buffer, tag + nName, length);
}

// Index of the close tag matching the open tag at openIndex, or -1: tags of
// exactly the same name nest, and the search ends at the first tag that
// begins at or after limit. The limit is the end of a piece of server
// output, and a close tag standing right after the piece belongs to the
// text that the merge copies after it; matching it would emit it twice.
// With the merge's index this is a lookup. Without one,
// the tags are walked as recorded, and the caller vouches that every tag
// from openIndex up to limit begins with "<" inside the text.
int32_t FindMatchingClose(int32_t openIndex, const char16_t* inPtr, int32_t limit) {
  const int32_t nTags = gFromServerTagBeginArray.nSize;
  if (openIndex < 0 || openIndex >= nTags) return -1;
  const int32_t* pBegin = gFromServerTagBeginArray.pData;
  const int32_t openOffset = pBegin[openIndex];
  const TagIndex* index = gpTagIndex;
  if (index && index->pText == inPtr) {
    // The index knows which tags fit the text; one that does not is never
    // read, and cannot be matched.
    if (openIndex >= index->nTags || !TagFits(index, openIndex)) return -1;
    QZ_ASSERT(inPtr[openOffset] == '<');
    int32_t lastSeen = 0;
    return MatchWithin(index, openIndex, limit, &lastSeen);
  }
  QZ_ASSERT(inPtr[openOffset] == '<');
  int32_t n = 0;
  while (!EndsName(inPtr[openOffset + 1 + n])) ++n;
  const char16_t* name = inPtr + openOffset + 1;
  int64_t depth = 1;
  for (int32_t j = openIndex + 1; j < nTags; ++j) {
    const int32_t matchOffset = pBegin[j];
    if (matchOffset >= limit) return -1;
    QZ_ASSERT(inPtr[matchOffset] == '<');
    const char16_t* p = inPtr + matchOffset + 1;
    bool bClose = *p == u'/';
    if (bClose) ++p;
    int32_t i = 0;
    while (i < n && p[i] == name[i]) ++i;
    if (i < n || p[n] == 0 || !EndsName(p[n])) continue;
    if (!bClose) {
      ++depth;
    } else if (--depth == 0) {
      return j;
    }
  }
  return -1;
}
