// The library's entry points and script functions: what a host reaches.
#ifndef QZ_MAIN_H
#define QZ_MAIN_H

#include <cstdint>

#include "HostInterface.h"

#define QZ_EXPORT extern "C" __attribute__((visibility("default")))

QZ_EXPORT intptr_t QZ_InitWrapper(void* const* table, uint32_t sizeInBytes);
QZ_EXPORT int JS_PropertyStub();
QZ_EXPORT void JS_FinalizeStub();
intptr_t QZ_Init();

// Script functions.
int Initialize(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int BeginPreTranslate(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int EndPreTranslate(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int SetLineEndingsToMatch(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int ReplaceTextInsideTag(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int BeginPostTranslate(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int EndPostTranslate(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int Cleanup(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int Directive(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int OpenTagBegin(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int OpenTagEnd(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int Attribute(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int CloseTagBegin(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int CloseTagEnd(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);
int Text(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);

#endif
