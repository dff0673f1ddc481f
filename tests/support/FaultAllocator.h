// The tests' allocator, installed into the library's allocation hooks before
// any test runs: it counts the blocks the library holds and its allocation
// attempts, and fails the attempts a test chooses.
#ifndef QZ_TESTS_FAULT_ALLOCATOR_H
#define QZ_TESTS_FAULT_ALLOCATOR_H

#include <vector>

// Puts the tests' allocator into the library's hooks again, after a test
// installed others (it is installed before main).
void FaultInstall();

// The n-th allocation or reallocation attempt from now fails (1 is the next
// one): only that one, or with bPersistent every attempt from the n-th on,
// as when memory has run out for good. 0 switches failures off. Also
// restarts the counts.
void FaultFailAt(long n, bool bPersistent = false);

// Allocation and reallocation attempts since the last FaultFailAt.
long FaultAttempts();

// Attempts that failed since the last FaultFailAt.
long FaultFailures();

// The numbers of the attempts since the last FaultFailAt that were
// reallocations: the growth of an array, a list or a buffer.
const std::vector<long>& FaultReallocations();

// Blocks the library holds: allocated and not yet released.
long FaultOutstanding();

#endif
