// The library's one assertion. It guards only the call-contract conditions
// named where it is used; anything ordinary input can produce is handled
// instead. Active in every build type: it reports the routine, the source
// file and the condition text on standard error, then stops the process.
#ifndef QZ_ASSERT_H
#define QZ_ASSERT_H

[[noreturn]] void QzAssertFail(const char* routine, const char* file, const char* condition);

#define QZ_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : QzAssertFail(__func__, __FILE_NAME__, #condition))

#endif
