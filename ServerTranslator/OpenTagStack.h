// The pre pass's open-tag stack (gOpenTags with its three parallel arrays,
// Session.h) and the index that finds a close tag's entry in it.
#ifndef QZ_OPEN_TAG_STACK_H
#define QZ_OPEN_TAG_STACK_H

#include <cstdint>

void OpenTagStackStart();
void OpenTagStackRelease();
int32_t OpenTagStackTop();
bool OpenTagStackPush(const char16_t* name, int32_t offset, int32_t bServer);
void OpenTagStackPop(int32_t n);
int32_t OpenTagStackFind(const char16_t* name);

#endif
