// Whole translations of fuzzed pages through a server that hands the
// labelled page back unchanged. No page may crash the library or break a
// script function's conventions; a page without U+0000 is always labelled;
// and where the rules promise it, the merged page is exactly the page.
//
// Input: a settings selector byte (PickSettings), the page, and after a 0xFF
// byte each the settings fields that the fourth selector reads.
#include <string>

#include "FuzzHost.h"
#include "Scanner.h"

using namespace qzfuzz;

namespace {

bool IsBlank(std::u16string_view text) {
  for (char16_t u : text)
    if (!qzhost::IsScanSpace(u)) return false;
  return true;
}

// What a scan of the page tells about the identity.
//
// A merge rebuilds a tag although the server left it alone when it is an
// open tag with attributes (so it gets a label attribute) whose closing text
// is neither white space alone nor white space followed by a "/": putting
// the page's attribute text back extends it over no other closing text
// ("/", " /\n", "x/").
//
// A construct that the end of the page cuts off runs to the end: a
// directive, or the text run that a tag without its ">" becomes. When labels
// go into it (server code: an include, both directive marks inside a
// comment, text inside a zboutput block), the scan of the server's output
// takes them into the construct, or the construct ends at a label's ">"
// ("<!--#include" at the "-->" of its end label), and the merge misses them.
class PageFacts : public qzhost::ScanSink {
 public:
  bool bRebuiltTag = false;
  int32_t cutAt = -1;  // the "<" of the construct cut off, if any

  bool Directive(std::u16string_view, int32_t) override { return true; }
  bool OpenTagBegin(std::u16string_view, int32_t) override {
    bAttributes_ = false;
    return true;
  }
  bool Attribute(std::u16string_view, std::u16string_view) override {
    bAttributes_ = true;
    return true;
  }
  bool OpenTagEnd(int32_t, std::u16string_view closing) override {
    if (bAttributes_ && !IsBlank(closing)) {
      bool bSpacedSlash = closing.size() >= 2 && closing.back() == u'/' &&
                          IsBlank(closing.substr(0, closing.size() - 1));
      if (!bSpacedSlash) bRebuiltTag = true;
    }
    return true;
  }
  bool CloseTagBegin(std::u16string_view, int32_t) override { return true; }
  bool CloseTagEnd(int32_t) override { return true; }
  bool Text(std::u16string_view, int32_t) override { return true; }
  void Cut(qzhost::Unfinished, int32_t at) override {
    if (cutAt < 0 || at < cutAt) cutAt = at;
  }

 private:
  bool bAttributes_ = false;
};

bool HasFolded(std::u16string_view text, std::u16string_view lowerWord) {
  for (size_t i = 0; i + lowerWord.size() <= text.size(); ++i) {
    size_t k = 0;
    while (k < lowerWord.size() && (text[i + k] | 0x20) == lowerWord[k]) ++k;
    if (k == lowerWord.size()) return true;
  }
  return false;
}

// Label comments in a labelled page; starts and ends come in pairs unless a
// server element whose content is not HTML is left open, which no merge
// can lock and which the host explains to the user.
size_t CountLabelComments(std::u16string_view labelled) {
  size_t n = 0;
  for (size_t at = labelled.find(u"<!--QZVX "); at != std::u16string_view::npos;
       at = labelled.find(u"<!--QZVX ", at + 1))
    ++n;
  return n;
}

// The identity holds unless the page holds text the merge takes for labels
// (label comments or label attributes typed into the page), a tag that the
// merge rebuilds, server code cut off by the end of the page, or a server
// element whose content is not HTML and that never ends.
bool PromisesIdentity(std::u16string_view page, std::u16string_view labelled) {
  if (HasFolded(page, u"qzvx")) return false;
  PageFacts facts;
  qzhost::ScanPage(page, facts);
  if (facts.bRebuiltTag) return false;
  if (facts.cutAt >= 0 && !labelled.ends_with(page.substr(static_cast<size_t>(facts.cutAt)))) return false;
  return CountLabelComments(labelled) % 2 == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<std::string_view> fields = SplitFields(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  const Settings settings = PickSettings(data[0], {fields.begin() + 1, fields.end()});
  const std::u16string page = DecodeLoosely(fields[0]);
  {
    FuzzHost host;
    host.Call("initialize", {});
    std::u16string labelled, merged;
    const bool bLabelled = host.Label(settings, page, &labelled);
    const bool bMerged = bLabelled && host.Merge(settings, page, labelled, &merged);
    host.Call("cleanup", {});
    // The library reads texts up to their first U+0000, so such a page is
    // not the page the scanner reported: it may be refused.
    if (page.find(u'\0') == std::u16string::npos) {
      Check(bLabelled, "a page is labelled");
      if (PromisesIdentity(page, labelled)) {
        Check(bMerged, "the unchanged labelled page merges");
        Check(merged == page, "the merged page is the page, not " + Shown(merged));
      }
    }
  }
  CheckNextTranslationExact();
  return 0;
}
