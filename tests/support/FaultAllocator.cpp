// The tests' allocator: the C allocator behind a countdown and counters, put
// into the library's hooks when the test program starts, so that every block
// the library makes is counted.
#include "FaultAllocator.h"

#include <csignal>
#include <cstdlib>

#include "Memory.h"

namespace {

long gnFailAt;                // first attempt that fails; 0 for none
bool gbPersistent;            // every attempt from gnFailAt on fails
long gnAttempts;              // attempts since FaultFailAt
long gnFailures;              // of which failed
std::vector<long> gReallocs;  // which of them were reallocations
long gnOutstanding;           // live blocks

bool ShouldFail() {
  ++gnAttempts;
  const bool bFail = gnFailAt != 0 && (gnAttempts == gnFailAt || (gbPersistent && gnAttempts > gnFailAt));
  gnFailures += bFail;
  return bFail;
}

void* Alloc(size_t nBytes) {
  if (ShouldFail()) return nullptr;
  void* p = std::malloc(nBytes);
  if (p) ++gnOutstanding;
  return p;
}

void* Realloc(void* p, size_t nBytes) {
  gReallocs.push_back(gnAttempts + 1);
  return ShouldFail() ? nullptr : std::realloc(p, nBytes);
}

void Free(void* p) {
  --gnOutstanding;
  std::free(p);
}

// Installed before main, while the library holds nothing.
const bool gbInstalled = [] {
  FaultInstall();
  return true;
}();

#ifdef QZ_COVERAGE
// A death test's child stops in an assertion by abort, which skips the
// writing of coverage counters at exit: the coverage build writes them first.
extern "C" void __gcov_dump();
const bool gbDumpOnAbort = [] {
  std::signal(SIGABRT, [](int) {
    __gcov_dump();
    std::_Exit(134);
  });
  return true;
}();
#endif

}  // namespace

void FaultInstall() {
  static const MemHooks kHooks = {Alloc, Realloc, Free};
  MemSetHooks(&kHooks);
}

void FaultFailAt(long n, bool bPersistent) {
  gnFailAt = n;
  gbPersistent = bPersistent;
  gnAttempts = gnFailures = 0;
  gReallocs.clear();
}

long FaultAttempts() { return gnAttempts; }

long FaultFailures() { return gnFailures; }

const std::vector<long>& FaultReallocations() { return gReallocs; }

long FaultOutstanding() { return gbInstalled ? gnOutstanding : 0; }
