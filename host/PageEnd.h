// A page that ends inside a directive: what is still open there, and how
// the host closes it in the text the server gets, so that the server gets
// code it accepts and the closing label after it comes back where the
// output scan can see it.
//
// The page itself, and so the code that locks carry, is never changed: the
// library is told the open directive with its last units replaced by the
// directive end characters (the same length, so every label place stays a
// place of the page), which makes an open server block server code up to
// the end of the page; the host then writes the closing text into the
// labelled page before its last label.
#ifndef QZHOST_PAGEEND_H
#define QZHOST_PAGEEND_H

#include <cstddef>
#include <string>
#include <string_view>

#include "Scanner.h"

namespace qzhost {

struct OpenEnd {
  bool bServerBlockOpen = false;  // a server block of the profile is open at the end
  bool bHoldsCode = false;        // that block holds more than its opening characters
  std::u16string closing;         // closes everything open, for the server: "\n?>", "-->", "\n?>-->", ">"
  std::u16string reportAs;        // what the library is told instead of the text; empty: the text itself
};

// What the directive text (cut off by the end of the page) leaves open,
// given the profile's directive start and end characters.
OpenEnd DescribeOpenEnd(std::u16string_view text, std::u16string_view start, std::u16string_view end);

// The closing text as a person reads it in a message: without line breaks.
std::string ShownClosing(std::u16string_view closing);

// Scans a server's output for the merge. When lastLabel is given and the
// output ends with it, the text before it is scanned alone and the label is
// reported after it: a construct that the page leaves open at its end, and
// that a server hands back as it stands, cannot then swallow the page's last
// label. Returns what ScanPage returns.
bool ScanOutput(std::u16string_view output, std::u16string_view lastLabel, ScanSink& sink);

}  // namespace qzhost

#endif
