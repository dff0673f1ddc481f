// The one door through which the library allocates. By default it is the C
// allocator; a program that embeds the library, or a test, may put three
// functions of its own in its place, to count blocks or to make chosen
// allocations fail.
#ifndef QZ_MEMORY_H
#define QZ_MEMORY_H

#include <cstddef>
#include <cstdint>

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

// Room for n elements of nSize bytes each: a new block when p is null, else
// p resized. Every array, buffer and table of the library grows through here
// and counts its elements in 32 bits: null, with p as it was, when n is below
// 1 or past INT32_MAX, when the bytes would not fit a size_t, or when memory
// runs out.
void* MemAllocArray(void* p, int64_t n, size_t nSize);

// Releases p; a null p is allowed.
void MemFree(void* p);

#endif
