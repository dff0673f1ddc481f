// Text replacement inside elements of one tag name, in one pass over the
// text with a nesting depth for the name. Only the "<" of a tag is looked
// at as a tag; the units after it go through like text, so inside the named
// element a tag's own name and attributes can be replaced too.
#include "TextReplace.h"

#include <cstring>

#include "Text16.h"

// Replaces every occurrence of search (nSearch units) that stands inside an
// element named name (nName units), nesting counted, case folded. name,
// search and replacement are exactly as long as given, NUL units included;
// the text is walked to its NUL, but never past nText units, and a
// comparison that would need its NUL or a unit past it does not match. An
// empty search finds nothing. Returns a new NUL-terminated text of at most
// nText * nReplacement / nSearch units (nText when the replacement is not
// longer), which the caller releases with MemFree; null when memory runs
// out.
char16_t* StringReplaceTextInsideTag(const char16_t* text, int64_t nText, const char16_t* name, int64_t nName,
                                     const char16_t* search, int64_t nSearch, const char16_t* replacement,
                                     int64_t nReplacement) {
  // Each replacement turns nSearch units into nReplacement, so the output
  // fits the room below; lengths below 2^31 keep the product below 2^62.
  const bool bGrows = nSearch > 0 && nReplacement > nSearch;
  char16_t* outText = TextAlloc((bGrows ? nText * nReplacement / nSearch : nText) + 1);
  if (!outText) return nullptr;
  int64_t n = 0;
  while (n < nText && text[n] != 0) ++n;
  auto matchesAt = [&](int64_t at, const char16_t* word, int64_t nWord) {
    return at + nWord <= n && UnitsEqualFolded(text + at, word, static_cast<size_t>(nWord));
  };
  char16_t* out = outText;
  int64_t depth = 0;
  for (int64_t i = 0; i < n;) {
    if (text[i] == u'<') {
      const bool bOpen = nName == 0 || matchesAt(i + 1, name, nName);
      const bool bClose = !bOpen && i + 1 < n && text[i + 1] == u'/' && matchesAt(i + 2, name, nName);
      if (bOpen) ++depth;
      if (bClose && depth > 0) --depth;
      if (bOpen || bClose) {
        *out++ = text[i++];
        continue;
      }
    }
    if (depth > 0 && nSearch > 0 && matchesAt(i, search, nSearch)) {
      std::memcpy(out, replacement, static_cast<size_t>(nReplacement) * sizeof(char16_t));
      out += nReplacement;
      i += nSearch;
      continue;
    }
    *out++ = text[i++];
  }
  *out = 0;
  return outText;
}
