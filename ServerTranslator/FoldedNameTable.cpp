// A hash table of names compared with case folded. The table does not own
// the names' texts: a slot points at units that its caller keeps alive for
// as long as the slot holds them. Linear probing at most half full keeps
// probe runs short; deletion moves later members of a run back instead of
// leaving tombstones, so a table that sees many pushes and pops stays clean.
#include "FoldedNameTable.h"

#include "Memory.h"

namespace {

constexpr int32_t kFirstSize = 128;

uint32_t Mask(const FoldedNameTable* table) { return static_cast<uint32_t>(table->nSlots) - 1; }

}  // namespace

uint32_t FoldedHashEnd(uint32_t h) {
  // FNV leaves the low bits weak for short names; the table masks them.
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  return h;
}

uint32_t FoldedNameHash(const char16_t* name, int32_t nName) {
  uint32_t h = kFoldedHashStart;
  for (int32_t i = 0; i < nName; ++i) h = FoldedHashStep(h, name[i]);
  return FoldedHashEnd(h);
}

// Makes room for one more name: the table doubles before it would pass half
// full. Returns 0 when memory runs out or the table is at its largest (2^30
// slots); the table is then as it was.
int FoldedNameTableReserve(FoldedNameTable* table) {
  if ((static_cast<int64_t>(table->nUsed) + 1) * 2 <= table->nSlots) return 1;
  const int64_t nNew = table->nSlots ? 2 * static_cast<int64_t>(table->nSlots) : kFirstSize;
  auto* pNew = static_cast<FoldedNameSlot*>(MemAllocArray(nullptr, nNew, sizeof(FoldedNameSlot)));
  if (!pNew) return 0;
  for (int32_t s = 0; s < nNew; ++s) pNew[s] = FoldedNameSlot{};
  const uint32_t mask = static_cast<uint32_t>(nNew) - 1;
  for (int32_t s = 0; s < table->nSlots; ++s) {
    if (!table->pSlots[s].pName) continue;
    uint32_t t = table->pSlots[s].hash & mask;
    while (pNew[t].pName) t = (t + 1) & mask;
    pNew[t] = table->pSlots[s];
  }
  MemFree(table->pSlots);
  table->pSlots = pNew;
  table->nSlots = static_cast<int32_t>(nNew);
  return 1;
}

// The slot that holds the name's nName units (hashed to hash), or the empty
// slot where it would go. The table must have slots (a reserve made them).
uint32_t FoldedNameTableFind(const FoldedNameTable* table, const char16_t* name, int32_t nName, uint32_t hash) {
  const uint32_t mask = Mask(table);
  for (uint32_t s = hash & mask;; s = (s + 1) & mask) {
    const FoldedNameSlot& slot = table->pSlots[s];
    if (!slot.pName) return s;
    if (slot.hash == hash && slot.nName == nName && UnitsEqualFolded(slot.pName, name, static_cast<size_t>(nName)))
      return s;
  }
}

// Puts the name and value into the slot that Find gave for it: an empty
// slot takes the name, a slot that holds it (in any letter case) gets the
// new value and the new text.
void FoldedNameTableSet(FoldedNameTable* table, uint32_t slot, const char16_t* name, int32_t nName, uint32_t hash,
                        int32_t value) {
  if (!table->pSlots[slot].pName) ++table->nUsed;
  table->pSlots[slot] = FoldedNameSlot{name, nName, hash, value};
}

// Empties the slot and moves later members of its probe run back, so that
// no search stops early at the hole.
void FoldedNameTableRemove(FoldedNameTable* table, uint32_t slot) {
  const uint32_t mask = Mask(table);
  uint32_t s = slot;
  for (uint32_t j = (s + 1) & mask; table->pSlots[j].pName; j = (j + 1) & mask) {
    const uint32_t home = table->pSlots[j].hash & mask;
    const bool bHomeBetween = s <= j ? (s < home && home <= j) : (s < home || home <= j);
    if (bHomeBetween) continue;
    table->pSlots[s] = table->pSlots[j];
    s = j;
  }
  table->pSlots[s] = FoldedNameSlot{};
  --table->nUsed;
}

void FoldedNameTableRelease(FoldedNameTable* table) {
  MemFree(table->pSlots);
  *table = FoldedNameTable{};
}
