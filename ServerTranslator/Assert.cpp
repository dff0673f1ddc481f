#include "Assert.h"

#include <cstdio>
#include <cstdlib>

void QzAssertFail(const char* routine, const char* file, const char* condition) {
  std::fprintf(stderr, "ServerTranslator: assertion \"%s\" failed in %s (%s)\n", condition, routine,
               file);
  std::fflush(stderr);
  std::abort();
}
