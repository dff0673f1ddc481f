// The server-tag test by prefix: is some entry of gTagPrefixes a prefix of
// a tag's name, ignoring case (an empty entry is a prefix of every name)?
// The answer is StringArrayFind's, without walking the list: a page may
// declare a taglib prefix in every directive, and a walk per tag would cost
// the page's directives times its tags. Each distinct folded prefix is kept
// once in a folded-name table, with the distinct prefix lengths in ascending
// order; a name is hashed in one walk from its start and looked up at each
// of those lengths that it reaches.
//
// The index covers the first nIndexed entries of gTagPrefixes and takes in
// the entries appended since at the next lookup, so appends need no hook.
// When it cannot grow it releases its memory and the test walks the list
// until the next start.
#include "TagPrefixIndex.h"

#include <cstring>

#include "FoldedNameTable.h"
#include "Memory.h"
#include "Session.h"
#include "Text16.h"

namespace {

struct PrefixIndex {
  FoldedNameTable prefixes;  // each distinct folded prefix to its entry in gTagPrefixes
  int32_t* pLengths;         // distinct prefix lengths, ascending
  int32_t nLengths;
  int32_t nLengthCapacity;
  int32_t nIndexed;  // entries of gTagPrefixes taken in
  bool bValid;
};

PrefixIndex sIndex;

// Puts nLength among the distinct lengths, keeping them ascending. Few
// lengths occur (a declared prefix has at most 121 units), so the insertion
// shifts little.
bool AddLength(int32_t nLength) {
  int32_t k = 0;
  while (k < sIndex.nLengths && sIndex.pLengths[k] < nLength) ++k;
  if (k < sIndex.nLengths && sIndex.pLengths[k] == nLength) return true;
  if (sIndex.nLengths == sIndex.nLengthCapacity) {
    const int64_t nNew = sIndex.nLengthCapacity ? 2 * static_cast<int64_t>(sIndex.nLengthCapacity) : 16;
    void* pNew = MemAllocArray(sIndex.pLengths, nNew, sizeof(int32_t));
    if (!pNew) return false;
    sIndex.pLengths = static_cast<int32_t*>(pNew);
    sIndex.nLengthCapacity = static_cast<int32_t>(nNew);
  }
  std::memmove(sIndex.pLengths + k + 1, sIndex.pLengths + k, static_cast<size_t>(sIndex.nLengths - k) * sizeof(int32_t));
  sIndex.pLengths[k] = nLength;
  ++sIndex.nLengths;
  return true;
}

// Takes in entry iEntry of gTagPrefixes; a prefix already held (in any
// letter case) is not held twice.
bool Add(int32_t iEntry) {
  const char16_t* prefix = gTagPrefixes.pData[iEntry];
  if (!FoldedNameTableReserve(&sIndex.prefixes)) return false;
  // Entries are copies made by StringArrayAdd, shorter than INT32_MAX units.
  const int32_t n = static_cast<int32_t>(TextLength(prefix));
  const uint32_t hash = FoldedNameHash(prefix, n);
  const uint32_t s = FoldedNameTableFind(&sIndex.prefixes, prefix, n, hash);
  if (sIndex.prefixes.pSlots[s].pName) return true;
  if (!AddLength(n)) return false;
  FoldedNameTableSet(&sIndex.prefixes, s, prefix, n, hash, iEntry);
  return true;
}

// Brings the index up to gTagPrefixes; false when it cannot be used.
bool CatchUp() {
  if (!sIndex.bValid) return false;
  // Fewer entries than taken in: the list was made anew behind the index.
  if (gTagPrefixes.nSize < sIndex.nIndexed) TagPrefixIndexStart();
  for (; sIndex.nIndexed < gTagPrefixes.nSize; ++sIndex.nIndexed) {
    if (!Add(sIndex.nIndexed)) {
      TagPrefixIndexRelease();
      return false;
    }
  }
  return true;
}

}  // namespace

// A new, empty index. Allocates nothing.
void TagPrefixIndexStart() {
  TagPrefixIndexRelease();
  sIndex.bValid = true;
}

// Releases the index; the test walks the list until the next start.
void TagPrefixIndexRelease() {
  FoldedNameTableRelease(&sIndex.prefixes);
  MemFree(sIndex.pLengths);
  sIndex = PrefixIndex{};
}

// Some entry of gTagPrefixes begins name, ignoring case.
bool TagPrefixIndexMatches(const char16_t* name) {
  if (!CatchUp()) return StringArrayFind(&gTagPrefixes, name) >= 0;
  uint32_t h = kFoldedHashStart;
  int32_t nHashed = 0;
  for (int32_t k = 0; k < sIndex.nLengths; ++k) {
    const int32_t nLength = sIndex.pLengths[k];
    for (; nHashed < nLength; ++nHashed) {
      if (name[nHashed] == 0) return false;  // shorter than every prefix left
      h = FoldedHashStep(h, name[nHashed]);
    }
    const uint32_t s = FoldedNameTableFind(&sIndex.prefixes, name, nLength, FoldedHashEnd(h));
    if (sIndex.prefixes.pSlots[s].pName) return true;
  }
  return false;
}
