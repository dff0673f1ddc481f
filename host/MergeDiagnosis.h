// Why the library refused to merge a server's output: a guess made from the
// labels in the labelled page and in the output and, when the page itself
// is at fault, the place in the page that caused it, for the error message.
#ifndef QZHOST_MERGEDIAGNOSIS_H
#define QZHOST_MERGEDIAGNOSIS_H

#include <string>
#include <string_view>

#include "Profile.h"

namespace qzhost {

// A guess at why the library refused to merge output, from the labels in the
// labelled page and in the output; empty when no reason can be told. When a
// piece of server code has no end in the page itself, the page's open-tag
// tracking is replayed (TagReplay.h) to name what left its element open.
std::string ExplainRejectedMerge(std::u16string_view page, std::u16string_view labelled, std::u16string_view output,
                                 const Profile& profile);

// What in the page leaves open the server element whose first label stands
// on line (1-based), as "; in the page, ..." to append to a message; empty
// when the page's open-tag tracking finds nothing that breaks a merge.
std::string CauseInPage(std::u16string_view page, const Profile& profile, size_t line);

}  // namespace qzhost

#endif
