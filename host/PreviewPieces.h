// The preview's pieces of server code and warnings, taken from the label
// check of one translation. Kept apart from the preview itself, which knows
// nothing of labels.
#ifndef QZHOST_PREVIEW_PIECES_H
#define QZHOST_PREVIEW_PIECES_H

#include <string_view>
#include <vector>

#include "LabelCheck.h"
#include "Preview.h"

namespace qzhost {

// Everything the preview of one translation shows, titled with the page
// path's file name: one piece per piece of server code the check found, in
// page order, numbered from 1 (label pair 2k, 2k+1 is piece k + 1); the
// warnings of the labelling first, then those of the check.
PreviewInput PreviewOfTranslation(std::string_view pagePath, const LabelReport& report,
                                  const std::vector<LabelWarning>& labellingWarnings, std::u16string_view merged);

}  // namespace qzhost

#endif
