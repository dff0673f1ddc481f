// The stand-in host's page scanner: walks UTF-16 page text once and reports
// directives, tags, attributes and text runs, in document order, to a sink.
//
// What counts as what:
// - Directives, each reported whole with the offset of its "<": comments
//   "<!--" .. "-->", server blocks "<%" .. "%>" and "<?" .. "?>", character
//   data "<![CDATA[" .. "]]>" and every other "<!" .. ">" construct. A "<?"
//   block ends at the "?>" where PHP's lexer ends it: not one inside a
//   string, a heredoc or nowdoc, or a block comment (a line comment ends at
//   it). A "<%" block ends at the first "%>", as ERB and ASP.NET end it.
// - An open tag is "<" and an ASCII letter; a close tag is "</" and an ASCII
//   letter. A "<" that starts none of these is text.
// - Inside a tag, server blocks belong to the tag: one standing where an
//   attribute could is reported as an attribute with that whole block as its
//   name and an empty value; one inside a name or value is part of it. Neither
//   ends the tag, nor does a ">" inside quotes.
// - The content of script and style elements is raw text up to the matching
//   close tag ("</script" or "</style", any letter case); a server block in
//   it is passed over whole, so a close tag written inside one does not count.
// - A construct that is not finished when the page ends: a directive runs to
//   the end and is reported as such; an open or close tag, or raw content
//   without its close tag, is no tag at all, and the rest of the page is
//   reported as one text run.
//
// Every unit of the page is looked at a bounded number of times, whatever the
// markup, so a scan is linear in the page's length.
#ifndef QZHOST_SCANNER_H
#define QZHOST_SCANNER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qzhost {

// Constructs that the end of a page can cut off.
enum class Unfinished {
  kDirective,  // reported all the same, running to the end
  kOpenTag,    // not reported: the rest of the page is one text run
  kCloseTag,   // the same
  kRawText,    // a script or style element without its close tag: the same
};

// Receives what a scan finds. Offsets count UTF-16 code units from the start
// of the page. The views point into the page and are valid during the call
// only. A method returns false to stop the scan.
class ScanSink {
 public:
  virtual ~ScanSink() = default;
  // A whole directive and the offset of its "<".
  virtual bool Directive(std::u16string_view text, int32_t offset) = 0;
  // An open tag's name and the offset of its "<".
  virtual bool OpenTagBegin(std::u16string_view name, int32_t offset) = 0;
  // One attribute of the open tag; a valueless attribute has an empty value.
  // The value is the text between the quotes, or the unquoted value, as
  // written (no character references are decoded).
  virtual bool Attribute(std::u16string_view name, std::u16string_view value) = 0;
  // The open tag ends: the offset just past its ">" and the closing text,
  // the units between the end of the last attribute (or of the name) and the
  // ">", such as "", " ", "/" or " /".
  virtual bool OpenTagEnd(int32_t endOffset, std::u16string_view closing) = 0;
  // A close tag's name and the offset of its "<".
  virtual bool CloseTagBegin(std::u16string_view name, int32_t offset) = 0;
  // The close tag ends: the offset just past its ">".
  virtual bool CloseTagEnd(int32_t endOffset) = 0;
  // A run of text between constructs, never empty, and its offset.
  virtual bool Text(std::u16string_view text, int32_t offset) = 0;
  // Told, before the scan reports what follows, that the construct whose
  // "<" stands at offset is cut off by the end of the page. Ignored unless
  // a sink wants to warn about it.
  virtual void Cut(Unfinished kind, int32_t offset) {
    (void)kind;
    (void)offset;
  }
};

// Longest page a scan accepts: offsets must fit a signed 32-bit number.
constexpr size_t kMaxScanUnits = static_cast<size_t>(INT32_MAX) - 1;

// Scans the page and reports to the sink. Returns true when the whole page was
// reported, false when the sink stopped the scan or the page is longer than
// kMaxScanUnits (then nothing is reported).
bool ScanPage(std::u16string_view page, ScanSink& sink);

// White space as the scanner and the library see it: tab, line feed,
// vertical tab, form feed, carriage return and space.
inline bool IsScanSpace(char16_t u) { return u == u' ' || (u >= u'\t' && u <= u'\r'); }

}  // namespace qzhost

#endif
