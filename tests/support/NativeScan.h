// One adapter from the stand-in host's scanner to the library's scanner
// callbacks, for tests that scan whole pages as a host does.
#ifndef QZ_TESTS_NATIVE_SCAN_H
#define QZ_TESTS_NATIVE_SCAN_H

#include <cstdint>
#include <functional>
#include <string_view>

#include "FakeHost.h"

// What a test may do around the calls of a scan, numbered from 0 in scan
// order: leave one out, and look at each result as it comes.
struct ScanWatch {
  long skip = -1;
  std::function<void(long index, const char* name, const qzhost::CallResult& r)> after;
};

// Scans page and hands every item to the natives named after it, as the
// host's translator does; offsets are moved by base. The script values made
// for one call are dropped after it, so pages of millions of items need no
// more memory than one call.
void ScanThroughNatives(FakeHost& host, std::u16string_view page, int32_t base = 0, const ScanWatch& watch = {});

#endif
