#include "PageEnd.h"

#include "Utf8.h"

namespace qzhost {
namespace {

// Offset of the server block still open at the end of text: the first start
// characters with no end characters after them, as the scanner pairs them;
// npos when every block is closed.
size_t OpenBlockAt(std::u16string_view text, std::u16string_view start, std::u16string_view end) {
  size_t from = 0;
  for (;;) {
    size_t s = text.find(start, from);
    if (s == std::u16string_view::npos) return s;
    size_t e = text.find(end, s + start.size());
    if (e == std::u16string_view::npos) return s;
    from = e + end.size();
  }
}

bool IsBlank(std::u16string_view text) {
  for (char16_t u : text)
    if (u != u' ' && (u < u'\t' || u > u'\r')) return false;
  return true;
}

}  // namespace

OpenEnd DescribeOpenEnd(std::u16string_view text, std::u16string_view start, std::u16string_view end) {
  OpenEnd open;
  if (start.empty() || end.empty()) return open;
  size_t at = OpenBlockAt(text, start, end);
  open.bServerBlockOpen = at != std::u16string_view::npos;
  if (!open.bServerBlockOpen) return open;
  open.bHoldsCode = !IsBlank(text.substr(at + start.size()));
  // A line break first, so that a line comment at the end of the code
  // cannot swallow the end characters.
  open.closing = u"\n";
  open.closing += end;
  // The library takes a directive as server code when it holds both the
  // start and the end characters; the end ones are written over the last
  // units, where they leave the start ones whole.
  if (open.bHoldsCode && text.find(end) == std::u16string_view::npos &&
      text.size() >= at + start.size() + end.size()) {
    open.reportAs = std::u16string(text.substr(0, text.size() - end.size())) + std::u16string(end);
  }
  return open;
}

std::string ShownClosing(std::u16string_view closing) {
  std::u16string shown;
  for (char16_t u : closing)
    if (u != u'\n') shown.push_back(u);
  return EncodeUtf8(shown);
}

bool ScanOutput(std::u16string_view output, std::u16string_view lastLabel, ScanSink& sink) {
  size_t n = lastLabel.size();
  if (n == 0 || output.size() < n || output.substr(output.size() - n) != lastLabel) return ScanPage(output, sink);
  size_t at = output.size() - n;
  return ScanPage(output.substr(0, at), sink) && sink.Directive(lastLabel, static_cast<int32_t>(at));
}

}  // namespace qzhost
