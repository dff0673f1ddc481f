// The pre pass's open-tag stack: four parallel arrays (gOpenTags,
// gOpenTagOffsets, gOpenTagIsServerTag, gOpenTagIsNonHtmlServerTag), one
// entry per open tag, innermost last. An entry is on all four or on none, so
// every handler may read one index across them.
//
// A close tag looks for the innermost entry of its name, ignoring case. A
// walk down the stack would make a page of tens of thousands of never-closed
// tags quadratic, so an index answers instead, exactly as
// StringArrayFindLastExact over gOpenTags would: every entry links to the
// previous entry of the same folded name, and a folded-name table maps each
// name on the stack to its topmost entry. Push and pop keep both in step in
// constant time per entry.
//
// The index mirrors the stack only while it is valid and covers exactly
// gOpenTags.nSize entries. When it cannot grow, or finds itself out of step
// (a change to the stack made behind its back), it releases its memory and
// the lookups walk the stack until OpenTagStackStart starts a new one.
#include "OpenTagStack.h"

#include "FoldedNameTable.h"
#include "Memory.h"
#include "Session.h"
#include "Text16.h"

namespace {

struct CloseTagIndex {
  FoldedNameTable names;  // each folded name on the stack to its topmost entry
  int32_t* pPrevSame;     // per entry: the previous entry of the same folded name, -1 for none
  int32_t nLinks;         // entries mirrored
  int32_t nLinkCapacity;
  bool bValid;
};

CloseTagIndex sIndex;

constexpr int32_t kFirstLinks = 128;

bool InStep() { return sIndex.bValid && sIndex.nLinks == gOpenTags.nSize; }

bool GrowLinks() {
  const int64_t nNew = sIndex.nLinkCapacity ? 2 * static_cast<int64_t>(sIndex.nLinkCapacity) : kFirstLinks;
  void* pNew = MemAllocArray(sIndex.pPrevSame, nNew, sizeof(int32_t));
  if (!pNew) return false;
  sIndex.pPrevSame = static_cast<int32_t*>(pNew);
  sIndex.nLinkCapacity = static_cast<int32_t>(nNew);
  return true;
}

// Called after an entry was pushed. The table points at the stack's own copy
// of the name, which lives as long as the entry.
void IndexPush() {
  if (!sIndex.bValid) return;
  if (sIndex.nLinks != gOpenTags.nSize - 1) return OpenTagStackRelease();
  const char16_t* name = gOpenTags.pData[sIndex.nLinks];
  if (sIndex.nLinks == sIndex.nLinkCapacity && !GrowLinks()) return OpenTagStackRelease();
  if (!FoldedNameTableReserve(&sIndex.names)) return OpenTagStackRelease();
  const int32_t nName = static_cast<int32_t>(TextLength(name));
  const uint32_t hash = FoldedNameHash(name, nName);
  const uint32_t s = FoldedNameTableFind(&sIndex.names, name, nName, hash);
  const FoldedNameSlot& slot = sIndex.names.pSlots[s];
  sIndex.pPrevSame[sIndex.nLinks] = slot.pName ? slot.value : -1;
  FoldedNameTableSet(&sIndex.names, s, name, nName, hash, sIndex.nLinks++);
}

// Called before the stack drops to nKeep entries, while their names are
// still there.
void IndexPopTo(int32_t nKeep) {
  if (!InStep()) return OpenTagStackRelease();
  while (sIndex.nLinks > nKeep) {
    const int32_t iTop = sIndex.nLinks - 1;
    const char16_t* name = gOpenTags.pData[iTop];
    const int32_t nName = static_cast<int32_t>(TextLength(name));
    const uint32_t hash = FoldedNameHash(name, nName);
    const uint32_t s = FoldedNameTableFind(&sIndex.names, name, nName, hash);
    // The topmost entry of the whole stack is the topmost of its name.
    if (!sIndex.names.pSlots[s].pName || sIndex.names.pSlots[s].value != iTop) return OpenTagStackRelease();
    const int32_t iPrev = sIndex.pPrevSame[iTop];
    if (iPrev >= 0)
      FoldedNameTableSet(&sIndex.names, s, gOpenTags.pData[iPrev], nName, hash, iPrev);
    else
      FoldedNameTableRemove(&sIndex.names, s);
    --sIndex.nLinks;
  }
}

}  // namespace

// A new, empty index for the stack, which must be empty. Allocates nothing.
void OpenTagStackStart() {
  OpenTagStackRelease();
  sIndex.bValid = true;
}

// Releases the index; the lookups walk the stack until the next start.
void OpenTagStackRelease() {
  FoldedNameTableRelease(&sIndex.names);
  MemFree(sIndex.pPrevSame);
  sIndex = CloseTagIndex{};
}

// Index of the top entry, -1 when the stack is empty (or its arrays are not
// of one length, which only a foreign change could cause).
int32_t OpenTagStackTop() {
  const int32_t n = gOpenTags.nSize;
  if (n < 1 || gOpenTagOffsets.nSize != n || gOpenTagIsServerTag.nSize != n || gOpenTagIsNonHtmlServerTag.nSize != n)
    return -1;
  return n - 1;
}

// Pushes (name, offset, bServer, 0) on all four arrays, or on none when
// memory runs out or the stack was never made.
bool OpenTagStackPush(const char16_t* name, int32_t offset, int32_t bServer) {
  if (!gOpenTags.pData || !gOpenTagOffsets.pData || !gOpenTagIsServerTag.pData || !gOpenTagIsNonHtmlServerTag.pData)
    return false;
  if (!StringArrayPush(&gOpenTags, name)) return false;
  if (IntArrayPush(&gOpenTagOffsets, offset)) {
    if (IntArrayPush(&gOpenTagIsServerTag, bServer)) {
      if (IntArrayPush(&gOpenTagIsNonHtmlServerTag, 0)) {
        IndexPush();
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
void OpenTagStackPop(int32_t n) {
  if (n < 1) return;
  IndexPopTo(gOpenTags.nSize - n);
  MemFree(StringArrayPopN(&gOpenTags, n));
  IntArrayPopN(&gOpenTagOffsets, n);
  IntArrayPopN(&gOpenTagIsServerTag, n);
  IntArrayPopN(&gOpenTagIsNonHtmlServerTag, n);
}

// The innermost entry named name, ignoring case, or -1.
int32_t OpenTagStackFind(const char16_t* name) {
  if (!InStep()) {
    OpenTagStackRelease();
    return StringArrayFindLastExact(&gOpenTags, name);
  }
  if (sIndex.names.nSlots == 0) return -1;
  const int32_t nName = static_cast<int32_t>(TextLength(name));
  const FoldedNameSlot& slot =
      sIndex.names.pSlots[FoldedNameTableFind(&sIndex.names, name, nName, FoldedNameHash(name, nName))];
  return slot.pName ? slot.value : -1;
}
