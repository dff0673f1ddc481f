// Entry, session state, scanner callbacks and the merge: what Main.cpp owns.
// Declared here so that Pre, HiliteColor and the tests can reach the state.
#ifndef QZ_MAIN_H
#define QZ_MAIN_H

#include <cstdint>

#include "HostInterface.h"
#include "IntArray.h"
#include "StringBuffer.h"

#define QZ_EXPORT extern "C" __attribute__((visibility("default")))

QZ_EXPORT intptr_t QZ_InitWrapper(void* const* table, uint32_t sizeInBytes);
QZ_EXPORT int JS_PropertyStub();
QZ_EXPORT void JS_FinalizeStub();
intptr_t QZ_Init();

// Session variables; their lifecycle is initialize .. cleanup.
extern IntArray gOffsetArray;                // pre: label-comment places in the page
extern IntArray gOffsetTypeArray;            // pre: kind code 1..6 of each place
extern IntArray gAttrOffsetArray;            // pre: label-attribute places (just after a tag name)
extern IntArray gAttrLengthArray;            // pre: attribute-text length of that tag
extern IntArray gFromServerOffsetArray;      // post: offset of each label comment that came back
extern IntArray gFromServerLengthArray;      // post: its length
extern IntArray gLabelArray;                 // post: its number
extern IntArray gAttrFromServerOffsetArray;  // post: labelled tag, offset just after its name
extern IntArray gAttrFromServerLengthArray;  // post: its attribute-text length
extern IntArray gAttrLabelArray;             // post: its label number
extern IntArray gFromServerTagBeginArray;    // post: begin of every tag, scan order
extern IntArray gFromServerTagEndArray;      // post: end of every tag, scan order
extern StringBuffer gEncodedAttrs;           // post: one NUL-ended record per labelled tag
extern int32_t gFromServerTitleInsideStart;  // index in gFromServerTagEndArray, -1 for none
extern int32_t gFromServerTitleInsideEnd;    // index in gFromServerTagBeginArray, -1 for none
extern intptr_t gMarker;                     // post: label of the open tag being scanned, or -1
extern intptr_t gOffset;                     // both: offset just after the open tag's name
extern int32_t gbPreTranslate;               // 1 during the pre pass

// Code units of the labelled page that endPreTranslate makes from a page of
// nPage units with nComments label comments and nAttrs label attributes, NUL
// included (an upper bound).
int64_t LabelledPageSize(int64_t nPage, int32_t nComments, int32_t nAttrs);

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
