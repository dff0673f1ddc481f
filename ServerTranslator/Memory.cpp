// Allocation module: every allocation of the library goes through here, to
// the installed hooks or, without any, to the C allocator. A zero-sized
// request is still a block, so callers never see the null that malloc(0)
// may give.
#include "Memory.h"

#include <cstdlib>

static MemHooks gHooks;  // all null: the C allocator

void MemSetHooks(const MemHooks* pHooks) {
  const bool bWhole = pHooks && pHooks->pAlloc && pHooks->pRealloc && pHooks->pFree;
  gHooks = bWhole ? *pHooks : MemHooks{};
}

void* MemAlloc(size_t nBytes) {
  if (nBytes == 0) nBytes = 1;
  return gHooks.pAlloc ? gHooks.pAlloc(nBytes) : std::malloc(nBytes);
}

void* MemRealloc(void* p, size_t nBytes) {
  if (!p) return MemAlloc(nBytes);
  if (nBytes == 0) nBytes = 1;
  return gHooks.pRealloc ? gHooks.pRealloc(p, nBytes) : std::realloc(p, nBytes);
}

void* MemAllocArray(void* p, int64_t n, size_t nSize) {
  if (n < 1 || n > INT32_MAX || static_cast<size_t>(n) > SIZE_MAX / nSize) return nullptr;
  return MemRealloc(p, static_cast<size_t>(n) * nSize);
}

void MemFree(void* p) {
  if (!p) return;
  if (gHooks.pFree)
    gHooks.pFree(p);
  else
    std::free(p);
}
