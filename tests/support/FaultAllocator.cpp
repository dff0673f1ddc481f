// The tests' allocator: the C allocator behind a countdown and two counters,
// put into the library's hooks when the test program starts, so that every
// block the library makes is counted.
#include "FaultAllocator.h"

#include <cstdlib>

#include "Memory.h"

namespace {

long gnFailAt;       // attempt that fails; 0 for none
long gnAttempts;     // attempts since FaultFailAt
long gnOutstanding;  // live blocks

bool ShouldFail() { return ++gnAttempts == gnFailAt && gnFailAt != 0; }

void* Alloc(size_t nBytes) {
  if (ShouldFail()) return nullptr;
  void* p = std::malloc(nBytes);
  if (p) ++gnOutstanding;
  return p;
}

void* Realloc(void* p, size_t nBytes) { return ShouldFail() ? nullptr : std::realloc(p, nBytes); }

void Free(void* p) {
  --gnOutstanding;
  std::free(p);
}

// Installed before main, while the library holds nothing.
const bool gbInstalled = [] {
  static const MemHooks kHooks = {Alloc, Realloc, Free};
  MemSetHooks(&kHooks);
  return true;
}();

}  // namespace

void FaultFailAt(long n) {
  gnFailAt = n;
  gnAttempts = 0;
}

long FaultAttempts() { return gnAttempts; }

long FaultOutstanding() { return gbInstalled ? gnOutstanding : 0; }
