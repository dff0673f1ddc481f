// The one door through which the library allocates. By default it is the C
// allocator; a program that embeds the library, or a test, may put three
// functions of its own in its place, to count blocks or to make chosen
// allocations fail.
#ifndef QZ_MEMORY_H
#define QZ_MEMORY_H

#include <cstddef>

// Allocation hooks. pAlloc returns a new block of nBytes (never 0) or null;
// pRealloc resizes p (never null) to nBytes (never 0), or returns null and
// leaves p as it was; pFree releases p (never null).
struct MemHooks {
  void* (*pAlloc)(size_t nBytes);
  void* (*pRealloc)(void* p, size_t nBytes);
  void (*pFree)(void* p);
};

// Installs a copy of *pHooks; null, or hooks that lack a function, restore
// the C allocator. Blocks must be released through the hooks that made them,
// so hooks are installed while the library holds no block.
void MemSetHooks(const MemHooks* pHooks);

// Allocates nBytes; null when memory runs out.
void* MemAlloc(size_t nBytes);

// Resizes p (null p allocates). On failure returns null and p stays valid
// and owned by the caller.
void* MemRealloc(void* p, size_t nBytes);

// Releases p; a null p is allowed.
void MemFree(void* p);

#endif
