// Pieces of server code from the label comments, until the label check
// reports them.
#include "PreviewPieces.h"

#include <algorithm>
#include <map>

#include "Utf8.h"

namespace qzhost {
namespace {

// A label comment exactly as the library writes it.
struct Label {
  long number;
  size_t begin;  // offset of "<!--"
  size_t end;    // offset just past "-->"
};

std::vector<Label> FindLabels(std::u16string_view text) {
  static constexpr std::u16string_view kHead = u"<!--QZVX ";
  static constexpr std::u16string_view kTail = u" -->";
  std::vector<Label> labels;
  for (size_t at = text.find(kHead); at != std::u16string_view::npos; at = text.find(kHead, at + 1)) {
    size_t digits = at + kHead.size();
    long number = 0;
    size_t q = digits;
    for (; q < text.size() && q - digits < 9 && text[q] >= u'0' && text[q] <= u'9'; ++q)
      number = number * 10 + (text[q] - u'0');
    if (q == digits || text.substr(q, kTail.size()) != kTail) continue;
    labels.push_back({number, at, q + kTail.size()});
  }
  return labels;
}

// The numbers of the pieces (start label / 2) that the output gave back with
// something between their two labels.
std::vector<bool> PiecesWithOutput(std::u16string_view output, size_t nPieces) {
  std::vector<bool> produced(nPieces, false);
  std::map<long, size_t> open;  // start label number -> end of its latest comment
  for (const Label& label : FindLabels(output)) {
    if (label.number % 2 == 0) {
      open[label.number] = label.end;
      continue;
    }
    auto start = open.find(label.number - 1);
    if (start == open.end()) continue;
    size_t piece = static_cast<size_t>(label.number / 2);
    if (label.begin > start->second && piece < nPieces) produced[piece] = true;
    open.erase(start);
  }
  return produced;
}

}  // namespace

std::vector<PreviewPiece> PiecesFromLabels(std::u16string_view labelled, std::u16string_view output) {
  std::vector<Label> labels = FindLabels(labelled);
  std::map<long, const Label*> ends;
  for (const Label& label : labels)
    if (label.number % 2 != 0) ends.emplace(label.number, &label);

  long highest = 0;
  for (const Label& label : labels) highest = std::max(highest, label.number);
  std::vector<bool> produced = PiecesWithOutput(output, static_cast<size_t>(highest / 2 + 1));
  std::vector<PreviewPiece> pieces;
  size_t line = 1, counted = 0;
  for (const Label& start : labels) {
    auto end = ends.find(start.number + 1);
    if (start.number % 2 != 0 || end == ends.end() || end->second->begin < start.end) continue;
    line += static_cast<size_t>(std::count(labelled.begin() + counted, labelled.begin() + start.begin, u'\n'));
    counted = start.begin;
    PreviewPiece piece;
    piece.number = static_cast<int>(start.number / 2 + 1);
    piece.line = static_cast<int>(line);
    piece.code = EncodeUtf8(labelled.substr(start.end, end->second->begin - start.end));
    piece.producedOutput = produced[static_cast<size_t>(start.number / 2)];
    pieces.push_back(std::move(piece));
  }
  return pieces;
}

std::vector<PreviewWarning> WarningsFromMessages(const std::vector<std::string>& messages) {
  std::vector<PreviewWarning> warnings;
  for (const std::string& message : messages) {
    PreviewWarning warning{0, message};
    size_t colon = message.find(": ");
    if (message.rfind("line ", 0) == 0 && colon != std::string::npos && colon > 5 && colon < 15 &&
        message.find_first_not_of("0123456789", 5) == colon) {
      warning.line = std::stoi(message.substr(5, colon - 5));
      warning.message = message.substr(colon + 2);
    }
    warnings.push_back(std::move(warning));
  }
  return warnings;
}

PreviewInput PreviewOfTranslation(std::string_view pagePath, std::u16string_view labelled,
                                  std::u16string_view output, std::u16string_view merged,
                                  const std::vector<std::string>& warnings) {
  PreviewInput input;
  size_t slash = pagePath.find_last_of('/');
  input.title = pagePath.substr(slash == std::string_view::npos ? 0 : slash + 1);
  input.mergedPage = EncodeUtf8(merged);
  input.pieces = PiecesFromLabels(labelled, output);
  input.warnings = WarningsFromMessages(warnings);
  return input;
}

}  // namespace qzhost
