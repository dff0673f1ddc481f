// The reasons a merge is refused that can be told from the texts alone: a
// piece of server code whose closing label never came back, one that has no
// end in the page itself (and what in the page left it so), and a label
// attribute that left its place.
#include "MergeDiagnosis.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "HostContract.h"
#include "Lines.h"
#include "Scanner.h"
#include "TagReplay.h"

namespace qzhost {
namespace {

// A label comment as the library reads it back: "<!--QZVX", white space,
// a decimal number.
struct FoundLabel {
  int64_t number;
  size_t offset;
};

std::vector<FoundLabel> FindLabelComments(std::u16string_view text) {
  static constexpr std::u16string_view kHead = kLabelCommentLead;
  std::vector<FoundLabel> found;
  for (size_t p = text.find(kHead); p != std::u16string_view::npos; p = text.find(kHead, p + 1)) {
    size_t q = p + kHead.size();
    while (q < text.size() && IsScanSpace(text[q])) ++q;
    bool negative = q < text.size() && text[q] == u'-';
    if (negative || (q < text.size() && text[q] == u'+')) ++q;
    if (q >= text.size() || text[q] < u'0' || text[q] > u'9') continue;
    int64_t n = 0;
    for (; q < text.size() && text[q] >= u'0' && text[q] <= u'9'; ++q)
      if (n < INT32_MAX) n = n * 10 + (text[q] - u'0');
    found.push_back({negative ? -n : n, p});
  }
  return found;
}

// Line of the page where label comment number stands in the labelled page
// (labels hold no line breaks, so lines agree with the page's), or 0.
size_t PageLineOfLabel(std::u16string_view labelled, const std::vector<FoundLabel>& labels, int64_t number) {
  for (const FoundLabel& l : labels)
    if (l.number == number) return LineOfUnit(labelled, l.offset);
  return 0;
}

// For each label, the highest closing (odd) label number at or after the
// next one; -1 when none follows.
std::vector<int64_t> ClosedAfter(const std::vector<FoundLabel>& labels) {
  std::vector<int64_t> maxOdd(labels.size() + 1, -1);
  for (size_t i = labels.size(); i-- > 0;)
    maxOdd[i] = std::max(maxOdd[i + 1], labels[i].number % 2 != 0 ? labels[i].number : int64_t{-1});
  return maxOdd;
}

// A start label (even) needs an end label (odd, not below it) somewhere
// after it; a start whose end never came back means the server dropped the
// rest of that stretch.
std::string ExplainUnclosedStart(std::u16string_view page, std::u16string_view labelled, const Profile& profile,
                                 const std::vector<FoundLabel>& sent, const std::vector<FoundLabel>& back) {
  std::vector<int64_t> sentClosed = ClosedAfter(sent), backClosed = ClosedAfter(back);
  for (size_t i = 0; i < back.size(); ++i) {
    int64_t start = back[i].number;
    if (start < 0 || start % 2 != 0 || backClosed[i + 1] >= start) continue;
    std::string why = "the server code that starts at label " + std::to_string(start);
    size_t line = PageLineOfLabel(labelled, sent, start);
    if (line) why += " (line " + std::to_string(line) + " of the page)";
    for (size_t k = 0; k < sent.size(); ++k) {
      if (sent[k].number != start || sentClosed[k + 1] >= start) continue;
      return why + " has no end in the page itself: an element whose content is not HTML (such as one with "
                   "runat=\"server\") is not closed" + CauseInPage(page, profile, line);
    }
    return why + " produced output whose closing label never came back; the server may have stopped early "
                 "(an exit or a fatal error) or dropped part of the page";
  }
  return "";
}

// A label attribute must stand right after its tag's name, where it was put.
std::string ExplainMovedAttribute(std::u16string_view output) {
  static constexpr std::u16string_view kAttr = kLabelAttrLead;
  for (size_t p = output.find(kAttr); p != std::u16string_view::npos; p = output.find(kAttr, p + 1)) {
    size_t q = p;
    while (q > 0 && !IsScanSpace(output[q - 1]) && output[q - 1] != u'<' && output[q - 1] != u'>') --q;
    if (q < p && q > 0 && output[q - 1] == u'<') continue;
    return "the server moved or rewrote the label attribute of a tag (line " + std::to_string(LineOfUnit(output, p)) +
           " of its output); labels must come back where they were put";
  }
  return "";
}

}  // namespace

// The first finding that breaks a merge, one about an element of that line
// before any other.
std::string CauseInPage(std::u16string_view page, const Profile& profile, size_t line) {
  std::vector<ElementFinding> findings = ReplayServerElements(page, profile);
  PlaceTable places(page);
  const ElementFinding* cause = nullptr;
  size_t causes = 0;
  for (const ElementFinding& f : findings) {
    if (!f.breaksMerge) continue;
    ++causes;
    bool ofLine = places.At(f.elementOffset).line == line;
    if (!cause || (ofLine && places.At(cause->elementOffset).line != line)) cause = &f;
  }
  if (!cause) return "";
  std::string more = causes > 1 ? " (and " + std::to_string(causes - 1) + " more: qztranslate --check lists them)" : "";
  return "; in the page, " + DescribeFinding(*cause, places) + more;
}

std::string ExplainRejectedMerge(std::u16string_view page, std::u16string_view labelled, std::u16string_view output,
                                 const Profile& profile) {
  std::string why =
      ExplainUnclosedStart(page, labelled, profile, FindLabelComments(labelled), FindLabelComments(output));
  return why.empty() ? ExplainMovedAttribute(output) : why;
}

}  // namespace qzhost
