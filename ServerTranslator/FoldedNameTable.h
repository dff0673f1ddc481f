// A hash table of names that compares them with case folded, mapping each
// distinct folded name to a number. The pre pass indexes its open-tag stack
// and its server-tag prefixes with it.
#ifndef QZ_FOLDED_NAME_TABLE_H
#define QZ_FOLDED_NAME_TABLE_H

#include <cstdint>

#include "Text16.h"

struct FoldedNameSlot {
  const char16_t* pName;  // the name's units, owned by the caller; null for an empty slot
  int32_t nName;          // units of the name
  uint32_t hash;          // FoldedNameHash of those units
  int32_t value;
};

struct FoldedNameTable {
  FoldedNameSlot* pSlots;  // linear probing; never more than half full
  int32_t nSlots;          // a power of two, or 0 before the first reserve
  int32_t nUsed;           // slots that hold a name
};

// The hash in steps, so that the hashes of all beginnings of a name come
// from one walk over it: start with kFoldedHashStart, add units with
// FoldedHashStep, finish each value with FoldedHashEnd.
inline constexpr uint32_t kFoldedHashStart = 2166136261u;
inline uint32_t FoldedHashStep(uint32_t h, char16_t unit) { return (h ^ FoldUnit(unit)) * 16777619u; }
uint32_t FoldedHashEnd(uint32_t h);
uint32_t FoldedNameHash(const char16_t* name, int32_t nName);

int FoldedNameTableReserve(FoldedNameTable* table);
uint32_t FoldedNameTableFind(const FoldedNameTable* table, const char16_t* name, int32_t nName, uint32_t hash);
void FoldedNameTableSet(FoldedNameTable* table, uint32_t slot, const char16_t* name, int32_t nName, uint32_t hash,
                        int32_t value);
void FoldedNameTableRemove(FoldedNameTable* table, uint32_t slot);
void FoldedNameTableRelease(FoldedNameTable* table);

#endif
