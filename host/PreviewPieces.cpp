// Pieces and warnings of the preview from the label check's report.
#include "PreviewPieces.h"

#include "Utf8.h"

namespace qzhost {
namespace {

void AddWarnings(const std::vector<LabelWarning>& from, std::vector<PreviewWarning>* to) {
  for (const LabelWarning& w : from) to->push_back({static_cast<int>(w.pageLine), w.message});
}

}  // namespace

PreviewInput PreviewOfTranslation(std::string_view pagePath, const LabelReport& report,
                                  const std::vector<LabelWarning>& labellingWarnings, std::u16string_view merged) {
  PreviewInput input;
  size_t slash = pagePath.find_last_of('/');
  input.title = pagePath.substr(slash == std::string_view::npos ? 0 : slash + 1);
  input.mergedPage = EncodeUtf8(merged);
  for (const CheckedPiece& piece : report.pieces)
    input.pieces.push_back(
        {piece.openLabel / 2 + 1, static_cast<int>(piece.line), EncodeUtf8(piece.code), piece.producedOutput});
  AddWarnings(labellingWarnings, &input.warnings);
  AddWarnings(report.warnings, &input.warnings);
  return input;
}

}  // namespace qzhost
