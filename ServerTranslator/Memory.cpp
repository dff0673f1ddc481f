// Allocation module: every allocation of the library goes through here.
#include "Memory.h"

#include <cstdlib>

static long gnFailAt;      // attempt number that fails; 0 for none
static long gnAttempts;    // attempts since the hook was last set
static long gnOutstanding; // live blocks

static bool MemShouldFail() {
  ++gnAttempts;
  return gnFailAt != 0 && gnAttempts == gnFailAt;
}

void* MemAlloc(size_t nBytes) {
  if (MemShouldFail()) return nullptr;
  // malloc(0) may return null; a zero-sized request is still a block.
  void* p = std::malloc(nBytes ? nBytes : 1);
  if (p) ++gnOutstanding;
  return p;
}

void* MemRealloc(void* p, size_t nBytes) {
  if (!p) return MemAlloc(nBytes);
  if (MemShouldFail()) return nullptr;
  return std::realloc(p, nBytes ? nBytes : 1);
}

void MemFree(void* p) {
  if (!p) return;
  --gnOutstanding;
  std::free(p);
}

void MemFailAt(long n) {
  gnFailAt = n;
  gnAttempts = 0;
}

long MemAttempts() { return gnAttempts; }

long MemOutstanding() { return gnOutstanding; }
