// The pre pass: the settings the translator script gives to beginPreTranslate,
// the detection of server markup in directives and text runs, and the
// open-tag stack with its server-tag rules. What is found becomes label
// places in the session arrays of Main (gOffsetArray with gOffsetTypeArray,
// gAttrOffsetArray with gAttrLengthArray), which endPreTranslate turns into
// labels.
//
// Rules local to this file:
// - The four open-tag stacks are pushed and popped together: an entry is on
//   all four or on none, so every handler may read one index across them.
// - A label place is the pair (offset, kind code); both arrays grow together
//   or not at all, so they always have equal length.
// - No handler fails and none stops the process: an append that runs out of
//   memory loses that entry or place, and events the scanner should not send
//   (an attribute with no open tag, a close-tag end with no close tag) are
//   ignored.
// - Close-tag lookups go through a private index over the stack (below), so a
//   page of tens of thousands of never-closed tags stays linear. The
//   server-tag test by prefix goes through another (below), so a page that
//   declares tens of thousands of taglib prefixes stays linear too.
#include "Pre.h"

#include <cstring>

#include "Memory.h"
#include "Session.h"
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
// Text helpers

// FoldedHash in steps, so that the hashes of all beginnings of a name come
// from one walk over it: start with kHashStart, add units with HashStep,
// and finish each value with HashEnd.
constexpr uint32_t kHashStart = 2166136261u;

uint32_t HashStep(uint32_t h, char16_t unit) { return (h ^ FoldUnit(unit)) * 16777619u; }

uint32_t HashEnd(uint32_t h) {
  // FNV leaves the low bits weak for short names; the table masks them.
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  return h;
}

uint32_t FoldedHash(const char16_t* text) {
  uint32_t h = kHashStart;
  for (; *text; ++text) h = HashStep(h, *text);
  return HashEnd(h);
}

bool ContainsUnits(const char16_t* text, int64_t n, const char16_t* needle) {
  return FindUnits(text, n, needle, static_cast<int64_t>(TextLength(needle))) >= 0;
}

// ---------------------------------------------------------------------------
// Label places

// A place computed from a host's offset and a length, in 32 bits like every
// recorded number. Only a host that reports offsets past the page can make
// one that does not fit; it is held at the int32 range, where endPreTranslate
// finds it beyond the page and refuses it, instead of wrapping into the page.
int32_t PlaceValue(int64_t value) {
  if (value < INT32_MIN) return INT32_MIN;
  if (value > INT32_MAX) return INT32_MAX;
  return static_cast<int32_t>(value);
}

// Records (offset, code). When either append fails the place is lost whole.
// Arrays without storage (no session open) record nothing.
void RecordPlace(int64_t offset, int32_t code) {
  if (!gOffsetArray.pData || !gOffsetTypeArray.pData) return;
  if (!IntArrayAdd(&gOffsetArray, PlaceValue(offset))) return;
  if (!IntArrayAdd(&gOffsetTypeArray, code)) --gOffsetArray.nSize;
}

void RecordAttrPlace(int64_t offset, int64_t length) {
  if (!gAttrOffsetArray.pData || !gAttrLengthArray.pData) return;
  if (!IntArrayAdd(&gAttrOffsetArray, PlaceValue(offset))) return;
  if (!IntArrayAdd(&gAttrLengthArray, PlaceValue(length))) --gAttrOffsetArray.nSize;
}

// Drops the places recorded after the first nKeep.
void CutPlaces(int32_t nKeep) {
  if (gOffsetArray.nSize > nKeep) gOffsetArray.nSize = nKeep;
  if (gOffsetTypeArray.nSize > nKeep) gOffsetTypeArray.nSize = nKeep;
}

// ---------------------------------------------------------------------------
// Close-tag index
//
// Finds the innermost open-tag entry of a given name, ignoring case, with the
// answer StringArrayFindLastExact gives over gOpenTags, without walking the
// stack. Every entry links to the previous entry of the same folded name, and
// a linear-probing table maps each name on the stack to its topmost entry.
// Push and pop update both in constant time (a pop of n entries costs n).
//
// The index mirrors gOpenTags only while bValid is set and it covers exactly
// gOpenTags.nSize entries. When it cannot grow, or finds itself out of step,
// it releases its memory and the lookups fall back to the linear search until
// the next PreInitialize starts a new one. PreCleanup releases it.

struct TagLink {
  int32_t iPrevSame;  // previous entry with the same folded name, -1 for none
  uint32_t hash;      // FoldedHash of the entry's name
};

struct OpenTagIndex {
  TagLink* pLinks;      // one per stack entry
  int32_t nLinks;       // entries mirrored
  int32_t nLinkCapacity;
  int32_t* pSlots;      // topmost entry of each name on the stack, -1 for an empty slot
  int32_t nSlots;       // a power of two, or 0 before the first push
  int32_t nNames;       // slots in use; at most half of nSlots
  bool bValid;
};

OpenTagIndex sIndex;

constexpr int32_t kFirstIndexSize = 128;
constexpr int32_t kLargestIndexSize = 1 << 29;

void IndexRelease() {
  MemFree(sIndex.pLinks);
  MemFree(sIndex.pSlots);
  sIndex = OpenTagIndex{};
}

// A new, empty index for an empty stack. Allocates nothing.
void IndexStart() {
  IndexRelease();
  sIndex.bValid = true;
}

bool IndexInStep() { return sIndex.bValid && sIndex.nLinks == gOpenTags.nSize; }

void IndexPlace(int32_t* pSlots, int32_t nSlots, int32_t iEntry) {
  uint32_t mask = static_cast<uint32_t>(nSlots) - 1;
  uint32_t s = sIndex.pLinks[iEntry].hash & mask;
  while (pSlots[s] != -1) s = (s + 1) & mask;
  pSlots[s] = iEntry;
}

bool IndexGrowSlots() {
  if (sIndex.nSlots >= kLargestIndexSize) return false;
  int32_t nNew = sIndex.nSlots ? sIndex.nSlots * 2 : kFirstIndexSize;
  int32_t* pNew = static_cast<int32_t*>(MemAlloc(static_cast<size_t>(nNew) * sizeof(int32_t)));
  if (!pNew) return false;
  for (int32_t s = 0; s < nNew; ++s) pNew[s] = -1;
  for (int32_t s = 0; s < sIndex.nSlots; ++s)
    if (sIndex.pSlots[s] != -1) IndexPlace(pNew, nNew, sIndex.pSlots[s]);
  MemFree(sIndex.pSlots);
  sIndex.pSlots = pNew;
  sIndex.nSlots = nNew;
  return true;
}

bool IndexGrowLinks() {
  if (sIndex.nLinkCapacity >= kLargestIndexSize) return false;
  int32_t nNew = sIndex.nLinkCapacity ? sIndex.nLinkCapacity * 2 : kFirstIndexSize;
  void* pNew = MemRealloc(sIndex.pLinks, static_cast<size_t>(nNew) * sizeof(TagLink));
  if (!pNew) return false;
  sIndex.pLinks = static_cast<TagLink*>(pNew);
  sIndex.nLinkCapacity = nNew;
  return true;
}

// Slot holding name's topmost entry, or the empty slot where it would go.
uint32_t IndexProbe(const char16_t* name, uint32_t hash) {
  uint32_t mask = static_cast<uint32_t>(sIndex.nSlots) - 1;
  uint32_t s = hash & mask;
  for (;; s = (s + 1) & mask) {
    int32_t k = sIndex.pSlots[s];
    if (k == -1) return s;
    if (sIndex.pLinks[k].hash == hash && TextsEqualFolded(gOpenTags.pData[k], name)) return s;
  }
}

// Called after the entry at gOpenTags.nSize - 1 was pushed.
void IndexPush(const char16_t* name) {
  if (!sIndex.bValid) return;
  if (sIndex.nLinks != gOpenTags.nSize - 1) return IndexRelease();
  if (sIndex.nLinks == sIndex.nLinkCapacity && !IndexGrowLinks()) return IndexRelease();
  if ((static_cast<int64_t>(sIndex.nNames) + 1) * 2 > sIndex.nSlots && !IndexGrowSlots())
    return IndexRelease();
  uint32_t hash = FoldedHash(name);
  uint32_t s = IndexProbe(name, hash);
  int32_t iPrev = sIndex.pSlots[s];
  if (iPrev == -1) ++sIndex.nNames;
  sIndex.pLinks[sIndex.nLinks] = TagLink{iPrev, hash};
  sIndex.pSlots[s] = sIndex.nLinks++;
}

// Empties slot s and moves later members of its probe run back, so that no
// lookup stops early at the hole (deletion without tombstones).
void IndexClearSlot(uint32_t s) {
  uint32_t mask = static_cast<uint32_t>(sIndex.nSlots) - 1;
  for (uint32_t j = (s + 1) & mask;; j = (j + 1) & mask) {
    int32_t k = sIndex.pSlots[j];
    if (k == -1) break;
    uint32_t home = sIndex.pLinks[k].hash & mask;
    bool bHomeBetween = s <= j ? (s < home && home <= j) : (s < home || home <= j);
    if (bHomeBetween) continue;
    sIndex.pSlots[s] = k;
    s = j;
  }
  sIndex.pSlots[s] = -1;
}

// Called before the stack drops to nKeep entries.
void IndexPopTo(int32_t nKeep) {
  if (!IndexInStep()) return IndexRelease();
  uint32_t mask = static_cast<uint32_t>(sIndex.nSlots) - 1;
  while (sIndex.nLinks > nKeep) {
    int32_t iTop = sIndex.nLinks - 1;
    uint32_t s = sIndex.pLinks[iTop].hash & mask;
    // The topmost entry of the whole stack is the topmost of its name.
    while (sIndex.pSlots[s] != iTop) {
      if (sIndex.pSlots[s] == -1) return IndexRelease();
      s = (s + 1) & mask;
    }
    if (sIndex.pLinks[iTop].iPrevSame != -1) {
      sIndex.pSlots[s] = sIndex.pLinks[iTop].iPrevSame;
    } else {
      IndexClearSlot(s);
      --sIndex.nNames;
    }
    --sIndex.nLinks;
  }
}

// Innermost entry named name (ignoring case), or -1.
int32_t FindOpenTag(const char16_t* name) {
  if (!IndexInStep()) {
    IndexRelease();
    return StringArrayFindLastExact(&gOpenTags, name);
  }
  if (sIndex.nSlots == 0) return -1;
  return sIndex.pSlots[IndexProbe(name, FoldedHash(name))];
}

// ---------------------------------------------------------------------------
// Prefix index
//
// Answers the server-tag test (is some entry of gTagPrefixes a prefix of a
// name, ignoring case) as StringArrayFind would, without walking the list: a
// page may declare a taglib prefix in every directive, and a walk per tag
// would cost the page's directives times its tags. Each distinct folded
// prefix is kept once in a linear-probing table, and the distinct prefix
// lengths in ascending order; a name is hashed in one walk from its start and
// probed at each of those lengths that it reaches.
//
// The index covers the first nIndexed entries of gTagPrefixes and takes in
// the entries appended since at the next lookup, so the appends need no hook.
// PreInitialize and PreCleanup start it afresh. When it cannot grow it
// releases its memory and the test falls back to StringArrayFind until the
// next start.

struct PrefixSlot {
  int32_t iEntry;   // entry of gTagPrefixes, -1 for an empty slot
  int32_t nLength;  // its length
  uint32_t hash;    // FoldedHash of it
};

struct PrefixIndex {
  PrefixSlot* pSlots;
  int32_t nSlots;     // a power of two, or 0 before the first prefix
  int32_t nPrefixes;  // slots in use; at most half of nSlots
  int32_t* pLengths;  // distinct prefix lengths, ascending
  int32_t nLengths;
  int32_t nLengthCapacity;
  int32_t nIndexed;   // entries of gTagPrefixes taken in
  bool bValid;
};

PrefixIndex sPrefixes;

void PrefixIndexRelease() {
  MemFree(sPrefixes.pSlots);
  MemFree(sPrefixes.pLengths);
  sPrefixes = PrefixIndex{};
}

void PrefixIndexStart() {
  PrefixIndexRelease();
  sPrefixes.bValid = true;
}

// Slot holding the prefix of name's first nLength units, or the empty slot
// where it would go.
uint32_t PrefixProbe(const char16_t* name, int32_t nLength, uint32_t hash) {
  uint32_t mask = static_cast<uint32_t>(sPrefixes.nSlots) - 1;
  for (uint32_t s = hash & mask;; s = (s + 1) & mask) {
    const PrefixSlot& slot = sPrefixes.pSlots[s];
    if (slot.iEntry == -1) return s;
    if (slot.hash == hash && slot.nLength == nLength &&
        UnitsEqualFolded(gTagPrefixes.pData[slot.iEntry], name, static_cast<size_t>(nLength)))
      return s;
  }
}

bool PrefixGrowSlots() {
  if (sPrefixes.nSlots >= kLargestIndexSize) return false;
  int32_t nNew = sPrefixes.nSlots ? sPrefixes.nSlots * 2 : kFirstIndexSize;
  PrefixSlot* pNew = static_cast<PrefixSlot*>(MemAlloc(static_cast<size_t>(nNew) * sizeof(PrefixSlot)));
  if (!pNew) return false;
  for (int32_t s = 0; s < nNew; ++s) pNew[s].iEntry = -1;
  uint32_t mask = static_cast<uint32_t>(nNew) - 1;
  for (int32_t s = 0; s < sPrefixes.nSlots; ++s) {
    if (sPrefixes.pSlots[s].iEntry == -1) continue;
    uint32_t t = sPrefixes.pSlots[s].hash & mask;
    while (pNew[t].iEntry != -1) t = (t + 1) & mask;
    pNew[t] = sPrefixes.pSlots[s];
  }
  MemFree(sPrefixes.pSlots);
  sPrefixes.pSlots = pNew;
  sPrefixes.nSlots = nNew;
  return true;
}

// Puts nLength among the distinct lengths, keeping them ascending. Few
// lengths occur (a declared prefix has at most 121 units), so the insertion
// shifts little.
bool PrefixAddLength(int32_t nLength) {
  int32_t k = 0;
  while (k < sPrefixes.nLengths && sPrefixes.pLengths[k] < nLength) ++k;
  if (k < sPrefixes.nLengths && sPrefixes.pLengths[k] == nLength) return true;
  if (sPrefixes.nLengths == sPrefixes.nLengthCapacity) {
    if (sPrefixes.nLengthCapacity >= kLargestIndexSize) return false;
    int32_t nNew = sPrefixes.nLengthCapacity ? sPrefixes.nLengthCapacity * 2 : 16;
    void* pNew = MemRealloc(sPrefixes.pLengths, static_cast<size_t>(nNew) * sizeof(int32_t));
    if (!pNew) return false;
    sPrefixes.pLengths = static_cast<int32_t*>(pNew);
    sPrefixes.nLengthCapacity = nNew;
  }
  std::memmove(sPrefixes.pLengths + k + 1, sPrefixes.pLengths + k,
               static_cast<size_t>(sPrefixes.nLengths - k) * sizeof(int32_t));
  sPrefixes.pLengths[k] = nLength;
  ++sPrefixes.nLengths;
  return true;
}

// Takes in entry iEntry of gTagPrefixes; a prefix already held (in any
// letter case) is not held twice.
bool PrefixIndexAdd(int32_t iEntry) {
  const char16_t* prefix = gTagPrefixes.pData[iEntry];
  size_t nLength = TextLength(prefix);
  if (nLength > static_cast<size_t>(INT32_MAX)) return false;
  if ((static_cast<int64_t>(sPrefixes.nPrefixes) + 1) * 2 > sPrefixes.nSlots && !PrefixGrowSlots()) return false;
  uint32_t hash = FoldedHash(prefix);
  uint32_t s = PrefixProbe(prefix, static_cast<int32_t>(nLength), hash);
  if (sPrefixes.pSlots[s].iEntry != -1) return true;
  if (!PrefixAddLength(static_cast<int32_t>(nLength))) return false;
  sPrefixes.pSlots[s] = PrefixSlot{iEntry, static_cast<int32_t>(nLength), hash};
  ++sPrefixes.nPrefixes;
  return true;
}

// Brings the index up to gTagPrefixes; false when it cannot be used.
bool PrefixIndexCatchUp() {
  if (!sPrefixes.bValid) return false;
  // Fewer entries than taken in: the list was made anew behind the index.
  if (gTagPrefixes.nSize < sPrefixes.nIndexed) PrefixIndexStart();
  for (; sPrefixes.nIndexed < gTagPrefixes.nSize; ++sPrefixes.nIndexed) {
    if (!PrefixIndexAdd(sPrefixes.nIndexed)) {
      PrefixIndexRelease();
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// The open-tag stack

// Index of the top entry, -1 when the stack is empty (or its arrays are not
// of one length, which only a foreign change could cause).
int32_t TopEntry() {
  int32_t n = gOpenTags.nSize;
  if (n < 1 || gOpenTagOffsets.nSize != n || gOpenTagIsServerTag.nSize != n ||
      gOpenTagIsNonHtmlServerTag.nSize != n)
    return -1;
  return n - 1;
}

// Pushes (name, offset, bServer, 0) on all four stacks, or on none when
// memory runs out or the stack was never made.
bool PushOpenTag(const char16_t* name, int32_t offset, int32_t bServer) {
  if (!gOpenTags.pData || !gOpenTagOffsets.pData || !gOpenTagIsServerTag.pData ||
      !gOpenTagIsNonHtmlServerTag.pData)
    return false;
  if (!StringArrayPush(&gOpenTags, name)) return false;
  if (IntArrayPush(&gOpenTagOffsets, offset)) {
    if (IntArrayPush(&gOpenTagIsServerTag, bServer)) {
      if (IntArrayPush(&gOpenTagIsNonHtmlServerTag, 0)) {
        IndexPush(name);
        return true;
      }
      IntArrayPop(&gOpenTagIsServerTag);
    }
    IntArrayPop(&gOpenTagOffsets);
  }
  MemFree(StringArrayPop(&gOpenTags));
  return false;
}

// Pops the top n entries; their names are released, nothing else is undone.
void PopOpenTags(int32_t n) {
  if (n < 1) return;
  IndexPopTo(gOpenTags.nSize - n);
  MemFree(StringArrayPopN(&gOpenTags, n));
  IntArrayPopN(&gOpenTagOffsets, n);
  IntArrayPopN(&gOpenTagIsServerTag, n);
  IntArrayPopN(&gOpenTagIsNonHtmlServerTag, n);
}

// Server-tag test by prefix: some entry of gTagPrefixes begins name,
// ignoring case (an empty entry begins every name).
bool IsServerTagName(const char16_t* name) {
  if (!PrefixIndexCatchUp()) return StringArrayFind(&gTagPrefixes, name) >= 0;
  uint32_t h = kHashStart;
  int32_t nHashed = 0;
  for (int32_t k = 0; k < sPrefixes.nLengths; ++k) {
    int32_t nLength = sPrefixes.pLengths[k];
    for (; nHashed < nLength; ++nHashed) {
      if (name[nHashed] == 0) return false;  // shorter than every prefix left
      h = HashStep(h, name[nHashed]);
    }
    uint32_t hash = HashEnd(h);
    if (sPrefixes.pSlots[PrefixProbe(name, nLength, hash)].iEntry != -1) return true;
  }
  return false;
}

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
  if (n > 0 && (value[0] == u'\'' || value[0] == u'"')) {
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
  IndexRelease();
  PrefixIndexRelease();
  if (!StringArrayCreate(&gTagPrefixes) || !StringArrayCreate(&gTagsContainingNonHtml) ||
      !StringArrayCreate(&gAttrsForServerTags) || !StringArrayCreate(&gAttrValuesForServerTags) ||
      !IntArrayCreate(&gAttrsDenoteNonHtmlTags) || !StringArrayCreate(&gOpenTags) ||
      !IntArrayCreate(&gOpenTagOffsets) || !IntArrayCreate(&gOpenTagIsServerTag) ||
      !IntArrayCreate(&gOpenTagIsNonHtmlServerTag))
    return 0;
  IndexStart();
  PrefixIndexStart();
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
  IndexRelease();
  PrefixIndexRelease();
  sPendingTag = kNoTag;
  return 1;
}

// ---------------------------------------------------------------------------
// Directives and text runs

// Registers a taglib prefix (also inside non-HTML content), then labels the
// directive as one stretch (codes 5 and 6) when it is a server directive by
// the configured characters or an include. Always 1.
int PreDirective(const char16_t* text, int32_t length, int32_t offset) {
  if (!text) return 1;
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
  if (iStart >= 1 && iEnd == -1) {
    CutPlaces(nSaved);
    RecordPlace(offset, kPlaceDirective);
    RecordPlace(offset + (length < 0 ? 0 : length), kPlaceEnd);
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Tags

// Pushes the tag; a server tag by prefix gets its code-1 place and may open
// non-HTML content or a zboutput block.
int PreOpenTagBegin(const char16_t* name, int32_t offset) {
  sPendingTag = kNoTag;
  gbHasAttrs = 0;
  if (!name || !PushOpenTag(name, offset, 0)) return 1;
  sPendingTag = kOpenTag;
  int32_t iTop = gOpenTags.nSize - 1;
  if (!IsServerTagName(name)) return 1;
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
  if (!name || !value || sPendingTag != kOpenTag) return 1;
  int32_t iTop = TopEntry();
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
  int32_t iTop = TopEntry();
  if (!bPending || iTop < 0) return 1;
  int32_t bServer = gOpenTagIsServerTag.pData[iTop];
  int32_t bNonHtml = gOpenTagIsNonHtmlServerTag.pData[iTop];
  size_t nClosing = TextLength(closingText);
  if (nClosing > 0 && closingText[nClosing - 1] == u'/') {
    PopOpenTags(1);
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
  if (!name) return 1;
  int32_t iFound = FindOpenTag(name);
  if (iFound >= 0) {
    PopOpenTags(gOpenTags.nSize - 1 - iFound);
  } else if (!PushOpenTag(name, -1, IsServerTagName(name) ? 1 : 0)) {
    return 1;
  }
  int32_t iTop = TopEntry();
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
  int32_t iTop = TopEntry();
  if (!bPending || iTop < 0) return 1;
  int32_t bServer = gOpenTagIsServerTag.pData[iTop];
  PopOpenTags(1);
  if (bServer && gInsideNonHtml == 0) RecordPlace(endOffset, kPlaceEnd);
  return 1;
}
