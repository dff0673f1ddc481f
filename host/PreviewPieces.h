// The preview's pieces of server code and warnings, read off what one
// translation already has: the labelled page, the server's output for it,
// and the messages of the labelling. Kept apart from the preview itself so
// that a fuller report of the labels can take its place.
#ifndef QZHOST_PREVIEW_PIECES_H
#define QZHOST_PREVIEW_PIECES_H

#include <string>
#include <string_view>
#include <vector>

#include "Preview.h"

namespace qzhost {

// One piece per pair of label comments in the labelled page: "<!--QZVX 2k -->"
// before the code and "<!--QZVX 2k+1 -->" after it. The piece's number is
// k + 1, its line that of its first label (labels hold no line breaks, so
// the labelled page's lines are the page's), its code what stands between
// the two labels. It produced output when the server's output holds the
// pair with something between them. A start label without its end label
// makes no piece. Pieces come in page order.
std::vector<PreviewPiece> PiecesFromLabels(std::u16string_view labelled, std::u16string_view output);

// Messages of the form "line N: what" become warnings of line N; any other
// message a warning of line 0.
std::vector<PreviewWarning> WarningsFromMessages(const std::vector<std::string>& messages);

// Everything the preview of one translation shows, titled with the page
// path's file name.
PreviewInput PreviewOfTranslation(std::string_view pagePath, std::u16string_view labelled,
                                  std::u16string_view output, std::u16string_view merged,
                                  const std::vector<std::string>& warnings);

}  // namespace qzhost

#endif
