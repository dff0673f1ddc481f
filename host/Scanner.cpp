// The page scanner. One forward walk: every construct is measured first and
// reported only once it is known to be finished, so that a construct cut off
// by the end of the page is never half reported. Each measurement either ends
// inside the page, and the walk goes on after it, or runs to the end, and the
// walk stops there; no unit is measured twice, which keeps hostile pages
// (thousands of unclosed tags or quotes) linear.
#include "Scanner.h"

#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qzhost {
namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

bool IsAsciiDigit(char16_t u) { return u >= u'0' && u <= u'9'; }

bool IsAsciiLetter(char16_t u) { return (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z'); }

// A unit of a PHP name (a heredoc's): letters, digits, "_" and every unit
// outside ASCII.
bool IsPhpNameUnit(char16_t u) { return IsAsciiLetter(u) || IsAsciiDigit(u) || u == u'_' || u >= 0x80; }

char16_t FoldAscii(char16_t u) { return (u >= u'A' && u <= u'Z') ? static_cast<char16_t>(u + 32) : u; }

bool EqualsFolded(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  return true;
}

struct AttrSpan {
  size_t nameBegin, nameEnd, valueBegin, valueEnd;
};

class PageScan {
 public:
  PageScan(std::u16string_view page, ScanSink& sink) : s_(page), n_(page.size()), sink_(sink) {}

  bool Run();

 private:
  // First position at or after from where the units a, b (and c) stand in a
  // row, or kNone.
  size_t Find(size_t from, char16_t a, char16_t b) const;
  size_t Find(size_t from, char16_t a, char16_t b, char16_t c) const;
  // First position at or after from that holds a or b, or the page's
  // length: text between constructs is passed over eight units at a time.
  size_t NextOf(size_t from, char16_t a, char16_t b) const;
  // The end of the run from q that stops at stop: server blocks in it are
  // passed over whole, so a stop inside one does not count. The page's
  // length when no stop follows.
  size_t SkipTo(size_t q, char16_t stop) const;

  bool IsServerBlockAt(size_t p) const {
    return p + 1 < n_ && s_[p] == u'<' && (s_[p + 1] == u'%' || s_[p + 1] == u'?');
  }
  // Just past the "%>" or "?>" that closes the server block at p; the page's
  // length when the block is not closed.
  size_t ServerBlockEnd(size_t p) const;
  // The "?>" that ends the PHP code from q, as PHP's lexer finds it: not
  // inside a string, a heredoc or nowdoc, or a block comment (a line comment
  // ends at it); kNone when the page ends first.
  size_t PhpClose(size_t q) const;
  // Just past the closing name of the heredoc or nowdoc whose "<<<" stands
  // at q; q + 3 when "<<<" begins none; kNone when the page ends first.
  size_t HeredocEnd(size_t q) const;
  // Just past the directive at p ("<!", "<%" or "<?"), or the page's length
  // with *closed false when the page ends first.
  size_t DirectiveEnd(size_t p, bool* closed) const;
  // Measures the open tag at p into the tag fields; false when the page ends
  // before its ">".
  bool MeasureOpenTag(size_t p);
  // Measures the close tag at p: the end of its name and the position just
  // past its ">"; false when the page ends before the ">".
  bool MeasureCloseTag(size_t p, size_t* nameEnd, size_t* end) const;
  // Position of the "<" of the whole close tag that ends raw content begun at
  // from for the element named name, or kNone when the page ends first.
  size_t FindRawClose(size_t from, std::u16string_view name) const;

  bool FlushText(size_t upto);
  bool ReportOpenTag(size_t p);
  int32_t Off(size_t p) const { return static_cast<int32_t>(p); }
  std::u16string_view Span(size_t begin, size_t end) const { return s_.substr(begin, end - begin); }

  std::u16string_view s_;
  size_t n_;
  ScanSink& sink_;
  size_t textStart_ = 0;  // first unit of the text run not yet reported

  // The tag being measured.
  size_t nameEnd_ = 0;
  size_t closingBegin_ = 0;  // end of the last attribute, or of the name
  size_t tagEnd_ = 0;        // just past the ">"
  std::vector<AttrSpan> attrs_;
};

size_t PageScan::NextOf(size_t from, char16_t a, char16_t b) const {
  size_t p = from;
#if defined(__SSE2__)
  const __m128i wantA = _mm_set1_epi16(static_cast<short>(a)), wantB = _mm_set1_epi16(static_cast<short>(b));
  for (; p + 8 <= n_; p += 8) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s_.data() + p));
    const unsigned mask = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi16(units, wantA), _mm_cmpeq_epi16(units, wantB))));
    if (mask != 0) return p + static_cast<size_t>(__builtin_ctz(mask)) / 2;
  }
#endif
  while (p < n_ && s_[p] != a && s_[p] != b) ++p;
  return p < n_ ? p : n_;
}

size_t PageScan::SkipTo(size_t q, char16_t stop) const {
  while ((q = NextOf(q, stop, u'<')) < n_ && s_[q] != stop) q = IsServerBlockAt(q) ? ServerBlockEnd(q) : q + 1;
  return q;
}

size_t PageScan::Find(size_t from, char16_t a, char16_t b) const {
  for (size_t p = NextOf(from, a, a); p + 1 < n_; p = NextOf(p + 1, a, a))
    if (s_[p + 1] == b) return p;
  return kNone;
}

size_t PageScan::Find(size_t from, char16_t a, char16_t b, char16_t c) const {
  for (size_t p = NextOf(from, a, a); p + 2 < n_; p = NextOf(p + 1, a, a))
    if (s_[p + 1] == b && s_[p + 2] == c) return p;
  return kNone;
}

size_t PageScan::ServerBlockEnd(size_t p) const {
  size_t close = s_[p + 1] == u'?' ? PhpClose(p + 2) : Find(p + 2, s_[p + 1], u'>');
  return close == kNone ? n_ : close + 2;
}

size_t PageScan::PhpClose(size_t q) const {
  while (q < n_) {
    const char16_t u = s_[q];
    if (u == u'?' && q + 1 < n_ && s_[q + 1] == u'>') return q;
    if (u == u'\'' || u == u'"' || u == u'`') {
      // A string: a backslash takes the unit after it along.
      for (++q; q < n_ && s_[q] != u; ++q)
        if (s_[q] == u'\\') ++q;
      if (q >= n_) return kNone;
      ++q;
    } else if (u == u'/' && q + 1 < n_ && s_[q + 1] == u'*') {
      size_t end = Find(q + 2, u'*', u'/');
      if (end == kNone) return kNone;
      q = end + 2;
    } else if ((u == u'/' && q + 1 < n_ && s_[q + 1] == u'/') || (u == u'#' && (q + 1 >= n_ || s_[q + 1] != u'['))) {
      // A line comment ends at the line's end or at "?>", whichever comes
      // first.
      while (q < n_ && s_[q] != u'\n' && !(s_[q] == u'?' && q + 1 < n_ && s_[q + 1] == u'>')) ++q;
    } else if (u == u'<' && q + 2 < n_ && s_[q + 1] == u'<' && s_[q + 2] == u'<') {
      q = HeredocEnd(q);
      if (q == kNone) return kNone;
    } else {
      ++q;
    }
  }
  return kNone;
}

size_t PageScan::HeredocEnd(size_t q) const {
  size_t r = q + 3;
  while (r < n_ && (s_[r] == u' ' || s_[r] == u'\t')) ++r;
  const bool quoted = r < n_ && (s_[r] == u'\'' || s_[r] == u'"');
  if (quoted) ++r;
  const size_t nameBegin = r;
  while (r < n_ && IsPhpNameUnit(s_[r])) ++r;
  const std::u16string_view name = Span(nameBegin, r);
  if (quoted && r < n_ && (s_[r] == u'\'' || s_[r] == u'"')) ++r;
  if (name.empty() || IsAsciiDigit(name[0]) || r >= n_ || (s_[r] != u'\n' && s_[r] != u'\r')) return q + 3;  // not a heredoc
  // The body runs to a line that holds, after spaces and tabs, the name
  // and then a unit that cannot continue it.
  for (r = s_.find(u'\n', r); r != std::u16string_view::npos && r < n_; r = s_.find(u'\n', r)) {
    size_t t = r + 1;
    while (t < n_ && (s_[t] == u' ' || s_[t] == u'\t')) ++t;
    if (s_.substr(t, name.size()) == name && (t + name.size() >= n_ || !IsPhpNameUnit(s_[t + name.size()])))
      return t + name.size();
    r = t;
  }
  return kNone;
}

size_t PageScan::DirectiveEnd(size_t p, bool* closed) const {
  *closed = true;
  size_t close;
  size_t markLength = 2;
  if (s_[p + 1] == u'?') {
    close = PhpClose(p + 2);
  } else if (s_[p + 1] != u'!') {
    close = Find(p + 2, s_[p + 1], u'>');
  } else if (p + 3 < n_ && s_[p + 2] == u'-' && s_[p + 3] == u'-') {
    // Searching from the first dash lets "<!-->" end itself, as browsers do.
    close = Find(p + 2, u'-', u'-', u'>');
    markLength = 3;
  } else if (s_.substr(p, 9) == u"<![CDATA[") {
    close = Find(p + 9, u']', u']', u'>');
    markLength = 3;
  } else {
    size_t q = p + 2;
    q = SkipTo(q, u'>');
    close = q < n_ ? q : kNone;
    markLength = 1;
  }
  if (close != kNone) return close + markLength;
  *closed = false;
  return n_;
}

bool PageScan::MeasureOpenTag(size_t p) {
  size_t q = p + 1;
  while (q < n_ && !IsScanSpace(s_[q]) && s_[q] != u'/' && s_[q] != u'>' && !IsServerBlockAt(q)) ++q;
  nameEnd_ = q;
  closingBegin_ = q;
  attrs_.clear();
  for (;;) {
    // Stray slashes between attributes are passed over like white space;
    // only those right before the ">" end up in the closing text.
    while (q < n_ && (IsScanSpace(s_[q]) || s_[q] == u'/')) ++q;
    if (q >= n_) return false;
    if (s_[q] == u'>') {
      tagEnd_ = q + 1;
      return true;
    }
    AttrSpan a;
    a.nameBegin = q;
    while (q < n_) {
      if (IsServerBlockAt(q)) {
        q = ServerBlockEnd(q);
        continue;
      }
      char16_t u = s_[q];
      if (IsScanSpace(u) || u == u'/' || u == u'>' || u == u'=') break;
      ++q;
    }
    a.nameEnd = q;
    a.valueBegin = a.valueEnd = q;
    size_t r = q;
    while (r < n_ && IsScanSpace(s_[r])) ++r;
    if (r < n_ && s_[r] == u'=') {
      ++r;
      while (r < n_ && IsScanSpace(s_[r])) ++r;
      if (r >= n_) return false;
      char16_t quote = s_[r];
      if (quote == u'"' || quote == u'\'') {
        a.valueBegin = ++r;
        r = SkipTo(r, quote);
        if (r >= n_) return false;
        a.valueEnd = r;
        q = r + 1;
      } else {
        a.valueBegin = r;
        while (r < n_ && !IsScanSpace(s_[r]) && s_[r] != u'>')
          r = IsServerBlockAt(r) ? ServerBlockEnd(r) : r + 1;
        a.valueEnd = r;
        q = r;
      }
    }
    attrs_.push_back(a);
    closingBegin_ = q;
  }
}

bool PageScan::MeasureCloseTag(size_t p, size_t* nameEnd, size_t* end) const {
  size_t q = p + 2;
  while (q < n_ && !IsScanSpace(s_[q]) && s_[q] != u'/' && s_[q] != u'>' && !IsServerBlockAt(q)) ++q;
  *nameEnd = q;
  q = SkipTo(q, u'>');
  if (q >= n_) return false;
  *end = q + 1;
  return true;
}

size_t PageScan::FindRawClose(size_t from, std::u16string_view name) const {
  size_t q = from;
  while ((q = NextOf(q, u'<', u'<')) < n_) {
    if (IsServerBlockAt(q)) {
      q = ServerBlockEnd(q);
      continue;
    }
    size_t after = q + 2 + name.size();
    if (q + 1 < n_ && s_[q + 1] == u'/' && after < n_ && EqualsFolded(s_.substr(q + 2, name.size()), name) &&
        (IsScanSpace(s_[after]) || s_[after] == u'/' || s_[after] == u'>')) {
      // A close tag cut off by the end of the page closes nothing; the search
      // for its ">" ran to the end, so there is nothing left to look at.
      size_t nameEnd, end;
      return MeasureCloseTag(q, &nameEnd, &end) ? q : kNone;
    }
    ++q;
  }
  return kNone;
}

bool PageScan::FlushText(size_t upto) {
  if (upto <= textStart_) return true;
  bool ok = sink_.Text(Span(textStart_, upto), Off(textStart_));
  textStart_ = upto;
  return ok;
}

bool PageScan::ReportOpenTag(size_t p) {
  if (!sink_.OpenTagBegin(Span(p + 1, nameEnd_), Off(p))) return false;
  for (const AttrSpan& a : attrs_)
    if (!sink_.Attribute(Span(a.nameBegin, a.nameEnd), Span(a.valueBegin, a.valueEnd))) return false;
  return sink_.OpenTagEnd(Off(tagEnd_), Span(closingBegin_, tagEnd_ - 1));
}

bool PageScan::Run() {
  size_t pos = 0;
  while (pos < n_) {
    size_t p = NextOf(pos, u'<', u'<');
    if (p + 1 >= n_) break;
    char16_t next = s_[p + 1];
    if (next == u'!' || next == u'%' || next == u'?') {
      bool closed;
      size_t end = DirectiveEnd(p, &closed);
      if (!FlushText(p)) return false;
      if (!closed) sink_.Cut(Unfinished::kDirective, Off(p));
      if (!sink_.Directive(Span(p, end), Off(p))) return false;
      pos = textStart_ = end;
    } else if (IsAsciiLetter(next)) {
      if (!MeasureOpenTag(p)) {
        sink_.Cut(Unfinished::kOpenTag, Off(p));
        break;
      }
      std::u16string_view name = Span(p + 1, nameEnd_);
      bool selfClosed = tagEnd_ - 1 > closingBegin_ && s_[tagEnd_ - 2] == u'/';
      size_t rawClose = kNone;
      if (!selfClosed && (EqualsFolded(name, u"script") || EqualsFolded(name, u"style"))) {
        // Raw content without its close tag is unfinished like a tag without
        // its ">": the element is not reported at all.
        rawClose = FindRawClose(tagEnd_, name);
        if (rawClose == kNone) {
          sink_.Cut(Unfinished::kRawText, Off(p));
          break;
        }
      }
      if (!FlushText(p) || !ReportOpenTag(p)) return false;
      pos = textStart_ = tagEnd_;
      // The raw content joins the text run that its close tag ends.
      if (rawClose != kNone) pos = rawClose;
    } else if (next == u'/' && p + 2 < n_ && IsAsciiLetter(s_[p + 2])) {
      size_t nameEnd, end;
      if (!MeasureCloseTag(p, &nameEnd, &end)) {
        sink_.Cut(Unfinished::kCloseTag, Off(p));
        break;
      }
      if (!FlushText(p) || !sink_.CloseTagBegin(Span(p + 2, nameEnd), Off(p)) || !sink_.CloseTagEnd(Off(end)))
        return false;
      pos = textStart_ = end;
    } else {
      pos = p + 1;
    }
  }
  return FlushText(n_);
}

}  // namespace

bool ScanPage(std::u16string_view page, ScanSink& sink) {
  if (page.size() > kMaxScanUnits) return false;
  PageScan scan(page, sink);
  return scan.Run();
}

}  // namespace qzhost
