// The two text services with any texts, U+0000 inside them included.
//
// setLineEndingsToMatch(model, text) keeps every unit but line endings, and
// hands the text value itself back when either has no line ending or both
// have the same style (that of the first ending); a text with one style
// throughout comes back with the model's style throughout and as many
// endings.
//
// replaceTextInsideTag(text, name, search, replacement) leaves a text alone
// where the search text (case folded) or the element never occurs, and the
// text before the first element always; each
// replacement changes the length by the same amount; replacing a text by
// itself changes at most letter case.
//
// setLineEndingsToMatch reads its texts up to the first U+0000: a call gives
// what the call with both texts cut there gives. replaceTextInsideTag reads
// its text that far, but takes the tag name, search text and replacement
// whole, at the lengths the host reports; a result is a NUL-terminated text,
// so a replacement holding U+0000 ends the result there.
//
// Input: a selector byte (even: setLineEndingsToMatch, odd:
// replaceTextInsideTag), then the texts, separated by 0xFF bytes; missing
// texts are empty.
#include <string>

#include "FuzzHost.h"

using namespace qzfuzz;

namespace {

std::u16string_view CutAtNul(std::u16string_view text) { return text.substr(0, text.find(u'\0')); }

enum Style { kNone, kCR, kLF, kCRLF };

Style StyleOf(std::u16string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\n') return kLF;
    if (text[i] == u'\r') return i + 1 < text.size() && text[i + 1] == u'\n' ? kCRLF : kCR;
  }
  return kNone;
}

std::u16string WithoutEndings(std::u16string_view text) {
  std::u16string kept;
  for (char16_t u : text)
    if (u != u'\r' && u != u'\n') kept.push_back(u);
  return kept;
}

// Line endings when every one of them has the given style, else -1.
long CountEndingsAllOf(std::u16string_view text, Style style) {
  long n = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != u'\r' && text[i] != u'\n') continue;
    bool bPair = text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n';
    Style s = bPair ? kCRLF : text[i] == u'\r' ? kCR : kLF;
    if (s != style) return -1;
    i += bPair;
    ++n;
  }
  return n;
}

char16_t Fold(char16_t u) { return u >= u'A' && u <= u'Z' ? static_cast<char16_t>(u + 32) : u; }

std::u16string Folded(std::u16string_view text) {
  std::u16string folded(text);
  for (char16_t& u : folded) u = Fold(u);
  return folded;
}

void LineEndings(FuzzHost& host, std::u16string_view model, std::u16string_view text) {
  const Value textValue = host.Str(text);
  qzhost::CallResult r = host.Call("setLineEndingsToMatch", {host.Str(model), textValue});
  Check(r.ok, "setLineEndingsToMatch succeeds with two texts");
  const std::u16string result(CutAtNul(host.engine.ToText(r.result)));
  model = CutAtNul(model);
  text = CutAtNul(text);
  qzhost::CallResult cut = host.Call("setLineEndingsToMatch", {host.Str(model), host.Str(text)});
  Check(cut.ok && CutAtNul(host.engine.ToText(cut.result)) == result,
        "setLineEndingsToMatch reads its texts up to their first U+0000");
  Check(WithoutEndings(result) == WithoutEndings(text), "setLineEndingsToMatch changes only line endings");
  const Style to = StyleOf(model), from = StyleOf(text);
  if (to == kNone || from == kNone || to == from) {
    Check(r.result == textValue, "setLineEndingsToMatch hands back its own text value when nothing changes");
    return;
  }
  const long nEndings = CountEndingsAllOf(text, from);
  if (nEndings >= 0)
    Check(CountEndingsAllOf(result, to) == nEndings,
          "a text with one line-ending style throughout takes the model's throughout, with as many endings");
}

void ReplaceInsideTag(FuzzHost& host, std::u16string_view text, std::u16string_view name, std::u16string_view search,
                      std::u16string_view replacement) {
  qzhost::CallResult r =
      host.Call("replaceTextInsideTag", {host.Str(text), host.Str(name), host.Str(search), host.Str(replacement)});
  Check(r.ok, "replaceTextInsideTag succeeds with four texts");
  const std::u16string result = host.engine.ToText(r.result);
  text = CutAtNul(text);
  qzhost::CallResult cut =
      host.Call("replaceTextInsideTag", {host.Str(text), host.Str(name), host.Str(search), host.Str(replacement)});
  Check(cut.ok && host.engine.ToText(cut.result) == result, "replaceTextInsideTag reads its text up to its first U+0000");

  const std::u16string foldedText = Folded(text);
  const size_t firstElement = foldedText.find(u"<" + Folded(name));
  const bool bFound = !search.empty() && foldedText.find(Folded(search)) != std::u16string::npos;
  if (firstElement == std::u16string::npos || !bFound)
    Check(result == text, "replaceTextInsideTag leaves a text without a match alone");
  else
    Check(result.starts_with(text.substr(0, firstElement)), "replaceTextInsideTag leaves the text before the first element alone");
  if (replacement.find(u'\0') != std::u16string_view::npos) return;
  const long long delta = static_cast<long long>(result.size()) - static_cast<long long>(text.size());
  const long long step = static_cast<long long>(replacement.size()) - static_cast<long long>(search.size());
  Check(step == 0 ? delta == 0 : delta % step == 0 && delta / step >= 0,
        "each replacement changes the length by the same amount");
  if (Folded(replacement) == Folded(search))
    Check(Folded(result) == foldedText, "replacing a text by itself changes at most letter case");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<std::u16string> texts;
  for (std::string_view field : SplitFields(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1)))
    texts.push_back(DecodeLoosely(field));
  texts.resize(std::max<size_t>(texts.size(), 4));
  FuzzHost host;
  if (data[0] % 2 == 0)
    LineEndings(host, texts[0], texts[1]);
  else
    ReplaceInsideTag(host, texts[0], texts[1], texts[2], texts[3]);
  return 0;
}
