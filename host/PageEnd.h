// A page that ends inside a directive: what is still open there, and what
// the host does so that it translates.
//
// The page itself, and so the code that locks carry, is never changed. A
// server block left open (<?php get_footer(); with no ?>) is made server
// code up to the end of the page by telling the library the directive with
// its last units replaced by the directive end characters: the same length,
// so every label place stays a place of the page. A server that runs such a
// block as code (PHP) gets it closed before the page's last label, which
// would otherwise stand inside its code. And the server's output is scanned
// with that last label apart (ScanOutput), so that a construct left open
// before it (a comment, <!#include, erb's <%>x) cannot swallow it.
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
  std::u16string closing;         // closes that block for a server that runs it: "\n?>", "\n%>"
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
