// The library's open-tag tracking in the pre pass, replayed over a page by
// the profile's rules, to find what ends a server element before its own
// close tag or leaves it open: the causes of merges the library refuses.
//
// The rules replayed: a tag is a server tag by a name prefix (the profile's,
// "script", "style", and those that taglib directives declare) or by an
// attribute rule; a server tag's content is not HTML when its name is in
// the profile's list (with "script" and "style") or a runat="server" rule
// made it a server tag, but for forms. A close tag pops every open tag
// above the innermost one of its name, without undoing what they counted:
// a popped element whose content is not HTML stays counted, and the library
// labels nothing after it, so its first label never gets its partner and
// the merge is refused. The same befalls such an element never closed.
#ifndef QZHOST_TAGREPLAY_H
#define QZHOST_TAGREPLAY_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Profile.h"

namespace qzhost {

enum class ElementProblem {
  kClosedEarly,     // the close tag of an element around it popped it
  kNeverClosed,     // still open at the end of the page
  kOpenBlockAtEnd,  // a server block that the end of the page cuts off (translated all the same)
};

struct ElementFinding {
  ElementProblem kind = ElementProblem::kNeverClosed;
  bool breaksMerge = false;  // the library refuses to merge any output of the page
  std::u16string element;    // the server element's name as written; kOpenBlockAtEnd: the block's start
  size_t elementOffset = 0;  // its "<"
  std::u16string closer;     // kClosedEarly: the close tag's name, as written
  size_t closerOffset = 0;   // its "<"
  std::u16string matched;    // kClosedEarly: the name of the open tag that the close tag matched, as written
  size_t matchedOffset = 0;  // its "<"
};

// Replays the page's open-tag tracking. Findings come in page order of
// where they show: the close tags that pop server elements (one finding per
// element popped, innermost first), then the server elements left open
// (outermost first), then a block open at the end. Linear in the page.
std::vector<ElementFinding> ReplayServerElements(std::u16string_view page, const Profile& profile);

// Line and column (both from 1) of the unit at offset.
struct Place {
  size_t line, column;
};

// Places of many offsets in one text, each found in logarithmic time.
class PlaceTable {
 public:
  explicit PlaceTable(std::u16string_view text);
  Place At(size_t offset) const;

 private:
  std::vector<size_t> lineStarts_;
};

// Where the finding shows: the close tag, the element, or the block.
size_t FindingOffset(const ElementFinding& finding);

// The finding in words: what happened, where, and what it does to a merge.
std::string DescribeFinding(const ElementFinding& finding, const PlaceTable& places);

}  // namespace qzhost

#endif
