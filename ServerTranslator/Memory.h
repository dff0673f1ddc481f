// The one door through which the library allocates. Besides plain malloc,
// realloc and free it keeps two counters so that tests can prove two things:
// that every allocation is released (MemOutstanding) and that each failure
// path is handled (MemFailAt makes one chosen allocation fail).
#ifndef QZ_MEMORY_H
#define QZ_MEMORY_H

#include <cstddef>

// Allocates nBytes; null when memory runs out (or the test hook says so).
void* MemAlloc(size_t nBytes);

// Resizes p (null p allocates). On failure returns null and p stays valid
// and owned by the caller.
void* MemRealloc(void* p, size_t nBytes);

// Releases p; a null p is allowed.
void MemFree(void* p);

// Test hook: the n-th allocation or reallocation from now fails (1 is the
// next one); 0 switches failures off.
void MemFailAt(long n);

// Allocations and reallocations attempted since the last MemFailAt.
long MemAttempts();

// Blocks allocated and not yet released.
long MemOutstanding();

#endif
