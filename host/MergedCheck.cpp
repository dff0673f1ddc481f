#include "MergedCheck.h"

#include <algorithm>
#include <string>

#include "HostContract.h"
#include "Lines.h"
#include "Utf8.h"

namespace qzhost {
namespace {

// A tag name longer than this is not looked for before a block.
constexpr size_t kMaxNameSearch = 256;

// The "<" of the open tag whose name the block at b was written against:
// a "<" and a letter with no ">" between it and b; npos when none stands
// within kMaxNameSearch units.
size_t TagBefore(std::u16string_view text, size_t b) {
  size_t stop = b > kMaxNameSearch ? b - kMaxNameSearch : 0;
  for (size_t p = b; p > stop;) {
    char16_t u = text[--p];
    if (u == u'>') break;
    if (u != u'<') continue;
    char16_t next = text[p + 1];
    bool letter = (next >= u'a' && next <= u'z') || (next >= u'A' && next <= u'Z');
    return letter ? p : std::u16string_view::npos;
  }
  return std::u16string_view::npos;
}

// The "<" of the next "<?" or "<%" at or after from; npos when none.
size_t NextBlock(std::u16string_view text, size_t from) {
  for (size_t p = text.find(u'<', from); p != std::u16string_view::npos; p = text.find(u'<', p + 1))
    if (p + 1 < text.size() && (text[p + 1] == u'?' || text[p + 1] == u'%')) return p;
  return std::u16string_view::npos;
}

}  // namespace

std::vector<LabelWarning> CheckMergedCode(std::u16string_view page, std::u16string_view merged) {
  std::vector<LabelWarning> warnings;
  static const std::u16string needle = std::u16string(kTranslatedValueAttr) + u"=";
  LineCursor lines(page);
  size_t pageFrom = 0;
  for (size_t b = NextBlock(merged, 0); b != std::u16string_view::npos;) {
    const char16_t closing[] = {merged[b + 1], u'>'};
    size_t e = merged.find(std::u16string_view(closing, 2), b + 2);
    if (e == std::u16string_view::npos) e = merged.size();
    std::u16string_view block = merged.substr(b, e - b);
    size_t at = block.find(needle);
    if (at != std::u16string_view::npos) {
      // The tag whose name the block was written against: from its "<" up to
      // the block's own mark, as the page has it too.
      size_t tag = TagBefore(merged, b);
      size_t line = 0;
      std::u16string_view shown = block.substr(0, at);
      if (tag != std::u16string_view::npos) {
        // Tags come back in page order, so each search starts past the
        // last one found; once one is not found no other is looked for, which
        // keeps a page of many such tags linear.
        size_t inPage = pageFrom < page.size() ? page.find(merged.substr(tag, b + 2 - tag), pageFrom)
                                               : std::u16string_view::npos;
        if (inPage != std::u16string_view::npos) {
          line = lines.LineAt(inPage);
          pageFrom = inPage + 1;
        } else {
          pageFrom = page.size();
        }
        shown = merged.substr(tag, b + at - tag);
      }
      while (!shown.empty() && (shown.back() == u' ' || shown.back() == u'\t')) shown.remove_suffix(1);
      warnings.push_back({Finding::kCodeCut, line, 0,
                          "the server code written against a tag's name in `" + EncodeUtf8(shown) +
                              "...` is cut in the merged page by the " + EncodeUtf8(kTranslatedValueAttr) +
                              " attribute (a tag's name runs up to \">\" or white space, so the code counts as "
                              "part of it); put a space between the name and the code"});
    }
    b = e >= merged.size() ? std::u16string_view::npos : NextBlock(merged, e + 2);
  }
  return warnings;
}

}  // namespace qzhost
