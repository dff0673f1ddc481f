// Text utilities: formatting with a script-supplied format, URL encoding,
// the #...# pair search of zboutput text and line-ending matching.
// Everything a function here allocates comes from the Memory module; results
// are released by callers with MemFree.
#include "Utility.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Memory.h"
#include "StringBuffer.h"
#include "Text16.h"

// ---------------------------------------------------------------------------
// Formatting

// Formats like char16_vswprintf, except that every "%s" of the format (also
// the one in "%%s") is taken as "%ls", a UTF-16 text. A format without "%s"
// is used as it is. When the rewritten format cannot be allocated, the
// buffer gets an empty text and the result is -1.
int _swprintf(char16_t* buffer, size_t size, const char16_t* format, ...) {
  size_t nLength = TextLength(format);
  size_t nPairs = 0;
  for (size_t i = 0; i + 1 < nLength; ++i)
    if (format[i] == '%' && format[i + 1] == 's') ++nPairs;

  const char16_t* use = format;
  char16_t* copy = nullptr;
  if (nPairs > 0) {
    // nPairs is at most half of nLength, a length of text in memory: the
    // sum cannot wrap.
    copy = TextAlloc(static_cast<int64_t>(nLength + nPairs + 1));
    if (!copy) {
      if (buffer && size > 0) buffer[0] = 0;
      return -1;
    }
    char16_t* out = copy;
    for (size_t i = 0; i < nLength; ++i) {
      if (format[i] == '%' && format[i + 1] == 's') {
        *out++ = '%';
        *out++ = 'l';
        *out++ = 's';
        ++i;
      } else {
        *out++ = format[i];
      }
    }
    *out = 0;
    use = copy;
  }

  va_list args;
  va_start(args, format);
  int result = char16_vswprintf(buffer, size, use, args);
  va_end(args);
  MemFree(copy);
  return result;
}

// ---------------------------------------------------------------------------
// URL encoding

// Units below 128 that stay as they are although the class table marks them
// as punctuation.
static bool IsUrlSafePunct(char16_t u) {
  switch (u) {
    case '!': case '$': case '\'': case '(': case ')': case '*': case '+': case ',': case '-':
    case '.': case '/': case ':': case ';': case '=': case '?': case '@': case '_':
      return true;
    default:
      return false;
  }
}

namespace {

// Writes the encoding of text[*pi] at out (three units at most) and moves
// *pi past what it took: CR LF is taken whole.
char16_t* EncodeUnit(const char16_t* text, int64_t* pi, char16_t* out) {
  static const char16_t kHexDigits[] = u"0123456789ABCDEF";
  const int64_t i = (*pi)++;
  char16_t u = text[i];
  if (u == '\r') {
    if (text[i + 1] == '\n') ++*pi;
    u = '\n';
  } else if (!IsControlPunctOrWhite(u) || IsUrlSafePunct(u)) {
    *out++ = u;
    return out;
  }
  // Only units below 128 are escaped: two upper-case hex digits each.
  *out++ = u'%';
  *out++ = kHexDigits[u >> 4];
  *out++ = kHexDigits[u & 15];
  return out;
}

}  // namespace

// Percent-encodes the first length units of text into a new text that the
// caller releases. CR and CR LF both become %0A (an LF just past the length
// is taken with its CR); controls, white space and punctuation other than
// the URL-safe set become %XX; letters, digits and units of 128 or more are
// copied. A length below 1 gives the empty text. Null when memory runs out.
char16_t* EncodeURL(const char16_t* text, int32_t length) {
  int64_t n = text && length > 0 ? length : 0;
  // Each unit becomes at most three.
  char16_t* result = TextAlloc(3 * n + 1);
  if (!result) return nullptr;
  char16_t* out = result;
  for (int64_t i = 0; i < n;) out = EncodeUnit(text, &i, out);
  *out = 0;
  return result;
}

// Appends what EncodeURL makes of the text to out, through a small block on
// the stack, so that no text of its own is allocated. Returns 0 when out
// cannot grow; what was appended before then stays.
int EncodeURLAppend(StringBuffer* out, const char16_t* text, int32_t length) {
  const int64_t n = text && length > 0 ? length : 0;
  char16_t block[256 + 3];
  char16_t* w = block;
  for (int64_t i = 0; i < n;) {
    w = EncodeUnit(text, &i, w);
    if (w - block < 256) continue;
    if (!StringBufferAdd(out, block, static_cast<int32_t>(w - block))) return 0;
    w = block;
  }
  return StringBufferAdd(out, block, static_cast<int32_t>(w - block));
}

// ---------------------------------------------------------------------------
// #...# pairs
//
// The pair search is defined as a recursive walk: from its opening "#" a walk
// tracks quotes and parenthesis depth; a "#" at depth 0 closes it, any other
// "#" starts a nested walk with fresh state, after whose closing "#" the outer
// walk goes on with its own state. Recursion would put one stack frame per
// nesting level on the machine stack, and a text run of "#(#(#(..." nests as
// deep as it is long. So the walk runs as one loop over the text, and the
// suspended outer walks live on an explicit stack. Runs of identical
// suspended states are stored once with a count, so the usual hostile input
// (one pattern repeated) needs no allocation at all.

namespace {

struct HashWalk {
  int64_t nDepth;    // parentheses opened minus closed, outside quotes
  bool bSingle;      // inside single quotes
  bool bDouble;      // inside double quotes
  int64_t nRepeat;   // on the stack: identical suspended walks stored here
};

bool SameWalk(const HashWalk& a, const HashWalk& b) {
  return a.nDepth == b.nDepth && a.bSingle == b.bSingle && a.bDouble == b.bDouble;
}

// Stack of suspended walks: a small inline block, then Memory storage.
class HashWalkStack {
 public:
  HashWalkStack() = default;
  HashWalkStack(const HashWalkStack&) = delete;
  HashWalkStack& operator=(const HashWalkStack&) = delete;
  ~HashWalkStack() {
    if (pEntries != inlineEntries) MemFree(pEntries);
  }

  bool Empty() const { return nEntries == 0; }

  // False when the stack cannot grow.
  bool Push(const HashWalk& walk) {
    if (nEntries > 0) {
      HashWalk& top = pEntries[nEntries - 1];
      if (SameWalk(top, walk)) {
        ++top.nRepeat;
        return true;
      }
    }
    if (nEntries == nCapacity && !Grow()) return false;
    pEntries[nEntries] = walk;
    pEntries[nEntries].nRepeat = 1;
    ++nEntries;
    return true;
  }

  HashWalk Pop() {
    HashWalk& top = pEntries[nEntries - 1];
    HashWalk walk = top;
    if (--top.nRepeat == 0) --nEntries;
    return walk;
  }

 private:
  bool Grow() {
    const int64_t nNew = 2 * nCapacity;
    const bool bInline = pEntries == inlineEntries;
    auto* pNew = static_cast<HashWalk*>(MemAllocArray(bInline ? nullptr : pEntries, nNew, sizeof(HashWalk)));
    if (!pNew) return false;
    if (bInline) std::memcpy(pNew, inlineEntries, sizeof(inlineEntries));
    pEntries = pNew;
    nCapacity = nNew;
    return true;
  }

  static const int64_t kInline = 32;
  HashWalk inlineEntries[kInline];
  HashWalk* pEntries = inlineEntries;
  int64_t nEntries = 0;
  int64_t nCapacity = kInline;
};

}  // namespace

// Finds the first "#" at from or later (*pStart) and the "#" that closes it
// (*pEnd); returns 1 for a pair. Returns 0 with both -1 when no "#" follows,
// and 0 with *pStart on that "#" and *pEnd -1 when it does not close before
// the text ends. Quotes shield only parentheses: a "#" always opens or
// closes. Linear in the units walked, so a caller that searches again from
// *pEnd + 1 stays linear over the whole text. Should the stack for very deep
// nesting run out of memory, the "#" counts as unclosed. text is not null.
int FindHashPair(const char16_t* text, int64_t from, int64_t* pStart, int64_t* pEnd) {
  *pStart = -1;
  *pEnd = -1;
  int64_t i = from > 0 ? from : 0;
  for (; text[i] != '#'; ++i)
    if (text[i] == 0) return 0;
  *pStart = i;

  HashWalkStack suspended;
  HashWalk walk{0, false, false, 0};
  for (++i; text[i] != 0; ++i) {
    switch (text[i]) {
      case '"':
        if (!walk.bSingle) walk.bDouble = !walk.bDouble;
        break;
      case '\'':
        if (!walk.bDouble) walk.bSingle = !walk.bSingle;
        break;
      case '(':
        if (!walk.bSingle && !walk.bDouble) ++walk.nDepth;
        break;
      case ')':
        if (!walk.bSingle && !walk.bDouble) --walk.nDepth;
        break;
      case '#':
        if (walk.nDepth != 0) {
          // This "#" opens a nested pair, walked with fresh state.
          if (!suspended.Push(walk)) return 0;
          walk = HashWalk{0, false, false, 0};
        } else if (suspended.Empty()) {
          *pEnd = i;
          return 1;
        } else {
          // A nested pair closed; its outer walk resumes after this "#".
          walk = suspended.Pop();
        }
        break;
      default:
        break;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Line endings

namespace {

enum LineStyle { kNoLineEnding, kLineCR, kLineLF, kLineCRLF };

// The style of the first line ending in text.
LineStyle LineStyleOf(const char16_t* text) {
  if (!text) return kNoLineEnding;
  for (const char16_t* p = text; *p != 0; ++p) {
    if (*p == '\n') return kLineLF;
    if (*p == '\r') return p[1] == '\n' ? kLineCRLF : kLineCR;
  }
  return kNoLineEnding;
}

}  // namespace

// Gives text the line-ending style of model. Returns text itself when either
// has no line ending or both have the same style; otherwise a new text that
// the caller releases, in which only the endings of text's own style (that
// of its first ending) are replaced. Null when the new text cannot be
// allocated.
const char16_t* StringSetLineEndingsToMatch(const char16_t* model, const char16_t* text) {
  LineStyle to = LineStyleOf(model);
  if (to == kNoLineEnding) return text;
  LineStyle from = LineStyleOf(text);
  if (from == kNoLineEnding || from == to) return text;

  size_t n = TextLength(text);
  // Room for every unit to become two; a text in memory is far too short
  // for the count to wrap.
  char16_t* result = TextAlloc(2 * static_cast<int64_t>(n) + 1);
  if (!result) return nullptr;

  char16_t* out = result;
  for (size_t i = 0; i < n; ++i) {
    char16_t u = text[i];
    bool bEnding = from == kLineCR     ? u == '\r'
                   : from == kLineLF   ? u == '\n'
                                       : u == '\r' && text[i + 1] == '\n';
    if (!bEnding) {
      *out++ = u;
      continue;
    }
    if (from == kLineCRLF) ++i;
    if (to != kLineLF) *out++ = '\r';
    if (to != kLineCR) *out++ = '\n';
  }
  *out = 0;
  return result;
}
