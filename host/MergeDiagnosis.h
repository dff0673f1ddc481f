// Why the library refused to merge a server's output: a guess made from the
// labels in the labelled page and in the output, for the error message.
#ifndef QZHOST_MERGEDIAGNOSIS_H
#define QZHOST_MERGEDIAGNOSIS_H

#include <string>
#include <string_view>

namespace qzhost {

// A guess at why the library refused to merge output, from the labels in the
// labelled page and in the output; empty when no reason can be told.
std::string ExplainRejectedMerge(std::u16string_view labelled, std::u16string_view output);

}  // namespace qzhost

#endif
