// The translation session's state: process-wide variables that live from
// initialize to cleanup (the pre pass's settings from beginPreTranslate to
// endPreTranslate). Declarations only; Main.cpp defines the session's
// arrays and Pre.cpp the pre pass's. Every file that reads or fills the
// state includes this header and nothing above it.
#ifndef QZ_SESSION_H
#define QZ_SESSION_H

#include <cstdint>

#include "IntArray.h"
#include "StringArray.h"
#include "StringBuffer.h"

// Label places of the pre pass, filled by Pre, read by endPreTranslate and
// the merge.
extern IntArray gOffsetArray;      // label-comment places in the page; a comment's number is its index
extern IntArray gOffsetTypeArray;  // kind code 1..6 of the place at the same index
extern IntArray gAttrOffsetArray;  // label-attribute places, just after a tag's name
extern IntArray gAttrLengthArray;  // that tag's attribute-text length

// What the post pass records about the server's output (PostRecord), read
// and moved by the merge and the highlighting.
extern IntArray gFromServerOffsetArray;      // offset of each label comment that came back
extern IntArray gFromServerLengthArray;      // its length
extern IntArray gLabelArray;                 // its number
extern IntArray gAttrFromServerOffsetArray;  // labelled tag: offset just after its name
extern IntArray gAttrFromServerLengthArray;  // its attribute-text length
extern IntArray gAttrLabelArray;             // its label number
extern IntArray gFromServerTagBeginArray;    // begin of every tag, scan order
extern IntArray gFromServerTagEndArray;      // end of the same tag
extern StringBuffer gEncodedAttrs;           // one NUL-ended record per labelled tag
extern int32_t gFromServerTitleInsideStart;  // index in gFromServerTagEndArray, -1 for none
extern int32_t gFromServerTitleInsideEnd;    // index in gFromServerTagBeginArray, -1 for none

// The scanner callbacks' own state.
extern intptr_t gMarker;        // post: label of the open tag being scanned, or -1
extern intptr_t gOffset;        // both: offset just after the open tag's name
extern int32_t gbPreTranslate;  // 1 during the pre pass

// The pre pass's settings.
extern char16_t* gDirStartChars;  // owned; null outside a pre pass
extern char16_t* gDirEndChars;    // owned; null outside a pre pass
extern StringArray gTagPrefixes;
extern StringArray gTagsContainingNonHtml;
extern StringArray gAttrsForServerTags;
extern StringArray gAttrValuesForServerTags;
extern IntArray gAttrsDenoteNonHtmlTags;

// The pre pass's open-tag stack: four parallel arrays, innermost last.
extern StringArray gOpenTags;                // names
extern IntArray gOpenTagOffsets;             // "<" offset, -1 for an unmatched close tag
extern IntArray gOpenTagIsServerTag;         // 1 for a server tag
extern IntArray gOpenTagIsNonHtmlServerTag;  // 1 when its content is not HTML

// The pre pass's depths and flags.
extern int64_t gInsideNonHtml;
extern int32_t gInsideZboutput;
extern uint8_t gbHasAttrs;
extern int32_t gZboutputStartOffset;
extern uint8_t gZboutputStartHasAttrs;

#endif
