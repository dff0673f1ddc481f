// The pre pass: settings read from the script, and the handlers that detect
// server markup in directives, text runs and tags. Its state is in Session.h.
#ifndef QZ_PRE_H
#define QZ_PRE_H

#include <cstdint>

#include "HostInterface.h"
#include "IntArray.h"
#include "StringArray.h"

int PreInitialize(void* cx, uint32_t argc, ScriptValue* argv);
int GetJSStringArray(void* cx, void* thisObj, ScriptValue* argv, int index, StringArray* target);
int GetJSIntArray(void* cx, void* thisObj, ScriptValue* argv, int index, IntArray* target);
int PreCleanup();

int PreDirective(const char16_t* text, int32_t length, int32_t offset);
int PreText(void* cx, uint32_t argc, ScriptValue* argv);

int PreOpenTagBegin(const char16_t* name, int32_t offset);
int PreAttributeVX(const char16_t* name, const char16_t* value);
int PreOpenTagEnd(int32_t endOffset, const char16_t* closingText);
int PreCloseTagBegin(const char16_t* name, int32_t offset);
int PreCloseTagEnd(int32_t endOffset);

#endif
