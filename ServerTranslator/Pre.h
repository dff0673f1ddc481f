// The pre pass: settings read from the script, detection of server markup in
// directives, text runs and tags, and the open-tag stack.
#ifndef QZ_PRE_H
#define QZ_PRE_H

#include <cstdint>

#include "HostInterface.h"
#include "IntArray.h"
#include "StringArray.h"

extern char16_t* gDirStartChars;  // owned; null outside a pre pass
extern char16_t* gDirEndChars;    // owned; null outside a pre pass
extern StringArray gTagPrefixes;
extern StringArray gTagsContainingNonHtml;
extern StringArray gAttrsForServerTags;
extern StringArray gAttrValuesForServerTags;
extern IntArray gAttrsDenoteNonHtmlTags;
extern StringArray gOpenTags;               // open-tag stack: names, innermost last
extern IntArray gOpenTagOffsets;            // parallel: "<" offset, -1 for an unmatched close tag
extern IntArray gOpenTagIsServerTag;        // parallel: 1 for a server tag
extern IntArray gOpenTagIsNonHtmlServerTag; // parallel: 1 when its content is not HTML
extern int64_t gInsideNonHtml;
extern int32_t gInsideZboutput;
extern uint8_t gbHasAttrs;
extern int32_t gZboutputStartOffset;
extern uint8_t gZboutputStartHasAttrs;

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
