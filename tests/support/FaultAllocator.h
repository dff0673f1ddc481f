// The tests' allocator, installed into the library's allocation hooks before
// any test runs: it counts the blocks the library holds and its allocation
// attempts, and fails the attempt a test chooses.
#ifndef QZ_TESTS_FAULT_ALLOCATOR_H
#define QZ_TESTS_FAULT_ALLOCATOR_H

// The n-th allocation or reallocation attempt from now fails (1 is the next
// one), and only that one; 0 switches failures off. Also restarts the
// attempt count.
void FaultFailAt(long n);

// Allocation and reallocation attempts since the last FaultFailAt.
long FaultAttempts();

// Blocks the library holds: allocated and not yet released.
long FaultOutstanding();

#endif
