// The label check. Labels are read back the way the library reads them: the
// output is scanned with the same scanner, label comments are the
// directives that begin "<!--QZVX" followed by a number, label attributes
// the attributes named qzvx, and the merge's walk over the label comments is
// followed step by step to tell which stretches of the page its locks will
// hold.
#include "LabelCheck.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "HostContract.h"
#include "Lines.h"
#include "PageEnd.h"
#include "Scanner.h"
#include "Utf8.h"

namespace qzhost {
namespace {

constexpr std::u16string_view kCommentHead = kLabelCommentLead;
constexpr std::u16string_view kAttrName = kLabelAttrName;

std::u16string Decimal(int64_t n) {
  std::string digits = std::to_string(n);
  return std::u16string(digits.begin(), digits.end());
}

std::u16string CommentLabel(size_t n) {
  return kLabelCommentHead + Decimal(static_cast<int64_t>(n)) + kLabelCommentTail;
}
std::u16string AttrLabel(size_t n) { return kLabelAttrHead + Decimal(static_cast<int64_t>(n)) + kLabelAttrTail; }

bool IsBlank(std::u16string_view text) {
  for (char16_t u : text)
    if (!IsScanSpace(u)) return false;
  return true;
}

// The start of text as a message shows it: its first line, at most 40 units.
std::string Snippet(std::u16string_view text) {
  size_t n = text.size() < 40 ? text.size() : 40;
  size_t lineEnd = text.substr(0, n).find_first_of(u"\r\n");
  if (lineEnd != std::u16string_view::npos) n = lineEnd;
  std::string shown = "`";
  shown += EncodeUtf8(text.substr(0, n));
  shown += n < text.size() ? "...`" : "`";
  return shown;
}

// A number as the library reads a label: blanks, a sign, decimal digits,
// held to the 32-bit range. read is false when no digit follows.
struct ReadNumber {
  bool read = false;
  int64_t value = 0;
};

ReadNumber ReadDecimal(std::u16string_view text, size_t i) {
  ReadNumber r;
  while (i < text.size() && IsScanSpace(text[i])) ++i;
  bool negative = i < text.size() && text[i] == u'-';
  if (i < text.size() && (text[i] == u'-' || text[i] == u'+')) ++i;
  for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
    r.read = true;
    r.value = r.value * 10 + (text[i] - u'0');
    if (r.value > INT32_MAX) r.value = INT32_MAX;
  }
  if (negative) r.value = -r.value;
  return r;
}

bool AllDigits(std::u16string_view text) {
  if (text.empty()) return false;
  for (char16_t u : text)
    if (u < u'0' || u > u'9') return false;
  return true;
}

// True when text is exactly label comment n as the library writes it.
bool IsCommentLabel(std::u16string_view text, int32_t n) {
  constexpr std::u16string_view kTail = u" -->";
  size_t digits = kCommentHead.size() + 1;
  if (text.size() <= digits + kTail.size() || text[digits - 1] != u' ') return false;
  if (text.substr(text.size() - kTail.size()) != kTail) return false;
  std::u16string_view number = text.substr(digits, text.size() - kTail.size() - digits);
  return AllDigits(number) && (number.size() == 1 || number[0] != u'0') && number.size() <= 10 &&
         ReadDecimal(number, 0).value == n;
}

// A label found in the output.
struct Event {
  int32_t number;
  size_t begin, end;  // the label comment's units in the output
};

// The open tags of the page: the "<", the end of the name (where a label
// attribute is put) and the end of the tag.
struct PageTag {
  size_t begin, nameEnd, end;
};

class TagCollector : public ScanSink {
 public:
  std::vector<PageTag> tags;

  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    size_t at = static_cast<size_t>(offset);
    tags.push_back({at, at + 1 + name.size(), at});
    return true;
  }
  bool OpenTagEnd(int32_t endOffset, std::u16string_view) override {
    tags.back().end = static_cast<size_t>(endOffset);
    return true;
  }
  bool Directive(std::u16string_view, int32_t) override { return true; }
  bool Attribute(std::u16string_view, std::u16string_view) override { return true; }
  bool CloseTagBegin(std::u16string_view, int32_t) override { return true; }
  bool CloseTagEnd(int32_t) override { return true; }
  bool Text(std::u16string_view, int32_t) override { return true; }
};

class Checker : public ScanSink {
 public:
  Checker(std::u16string_view page, const LabelPlaces& places, std::u16string_view output,
          std::u16string_view directiveStart, std::u16string_view lastLabel)
      : page_(page),
        places_(places),
        output_(output),
        start_(directiveStart),
        lastLabel_(lastLabel),
        outputLines_(output) {}

  LabelReport Run();

  // The output's items, as the library's post pass sees them.
  bool Directive(std::u16string_view text, int32_t offset) override;
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override;
  bool Attribute(std::u16string_view name, std::u16string_view value) override;
  bool Text(std::u16string_view text, int32_t offset) override;
  bool OpenTagEnd(int32_t, std::u16string_view) override { return true; }
  bool CloseTagBegin(std::u16string_view, int32_t) override { return true; }
  bool CloseTagEnd(int32_t) override { return true; }

 private:
  void MakePieces();
  void MakeTags();
  void CheckOrder();
  void CheckEnd(int32_t last);
  void Cover();
  void ReportMissing();
  void CountOutputs();

  int32_t Comments() const { return static_cast<int32_t>(places_.comments.size()); }
  int32_t Attributes() const { return static_cast<int32_t>(places_.attributes.size()); }
  const CheckedPiece& PieceOf(int32_t label) const { return report_.pieces[static_cast<size_t>(label / 2)]; }
  // "the server code at line 3 (`<?= $a ?>`)"
  std::string Named(int32_t label) const {
    const CheckedPiece& p = PieceOf(label);
    return "the server code at line " + std::to_string(p.line) + " (" + Snippet(p.code) + ")";
  }
  void Warn(std::vector<LabelWarning>* list, Finding kind, size_t pageLine, size_t outputAt, std::string message) {
    size_t outputLine = outputAt == kNoOffset ? 0 : outputLines_.LineAt(outputAt);
    list->push_back({kind, pageLine, outputLine, std::move(message)});
  }

  static constexpr size_t kNoOffset = static_cast<size_t>(-1);

  std::u16string_view page_;
  const LabelPlaces& places_;
  std::u16string_view output_;
  std::u16string_view start_;
  std::u16string_view lastLabel_;
  LineCursor outputLines_;
  LabelReport report_;
  std::vector<Event> events_;
  bool tagLabelsBack_ = false;
  size_t tagBegin_ = 0, tagNameEnd_ = 0;  // the output's open tag being scanned
  int tagLabels_ = 0;                     // label attributes met in it so far
  int32_t tagCounted_ = -1;               // the known label counted back for it; -1: none
  std::vector<int32_t> cover_;            // per gap between label places: stretches that lock it
  bool refused_ = false;                  // the merge's walk finds an opening label it cannot close
  std::vector<LabelWarning> plain_, forms_, order_, missing_;
};

// One piece per pair of label places, with its code and page line.
void Checker::MakePieces() {
  LineCursor lines(page_);
  report_.pieces.reserve(places_.comments.size() / 2 + 1);
  for (int32_t open = 0; open < Comments(); open += 2) {
    CheckedPiece p;
    p.openLabel = open;
    p.closeLabel = open + 1 < Comments() ? open + 1 : -1;
    p.begin = places_.comments[static_cast<size_t>(open)];
    p.end = p.closeLabel >= 0 ? places_.comments[static_cast<size_t>(open + 1)] : page_.size();
    p.line = lines.LineAt(p.begin);
    p.code = std::u16string(page_.substr(p.begin, p.end - p.begin));
    report_.pieces.push_back(std::move(p));
  }
}

// One tag per label attribute, found in the page by the place of its label
// (right after the tag's name).
void Checker::MakeTags() {
  if (places_.attributes.empty()) return;
  TagCollector collector;
  ScanPage(page_, collector);
  LineCursor lines(page_);
  report_.tags.reserve(places_.attributes.size());
  size_t t = 0;
  for (int32_t label = 0; label < Attributes(); ++label) {
    size_t place = places_.attributes[static_cast<size_t>(label)];
    while (t < collector.tags.size() && collector.tags[t].nameEnd < place) ++t;
    CheckedTag tag;
    tag.label = label;
    tag.begin = tag.end = place;
    if (t < collector.tags.size() && collector.tags[t].nameEnd == place) {
      tag.begin = collector.tags[t].begin;
      tag.end = collector.tags[t].end;
    }
    tag.line = lines.LineAt(tag.begin);
    std::u16string_view attrs = page_.substr(place, tag.end > place ? tag.end - place : 0);
    tag.holdsServerCode = !start_.empty() && attrs.find(start_) != std::u16string_view::npos;
    report_.tags.push_back(tag);
  }
}

// True when two tag names are the same but for the letter case of ASCII.
bool SameNameFolded(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char16_t x = a[i] >= u'A' && a[i] <= u'Z' ? static_cast<char16_t>(a[i] + 32) : a[i];
    char16_t y = b[i] >= u'A' && b[i] <= u'Z' ? static_cast<char16_t>(b[i] + 32) : b[i];
    if (x != y) return false;
  }
  return true;
}

// A label comment as the library reads it ("<!--QZVX", a number), or a
// directive that hides one.
bool Checker::Directive(std::u16string_view text, int32_t offset) {
  size_t at = static_cast<size_t>(offset);
  if (text.substr(0, kCommentHead.size()) != kCommentHead) {
    if (text.find(kCommentHead) != std::u16string_view::npos)
      Warn(&forms_, Finding::kMalformedLabel, 0, at + text.find(kCommentHead),
           "a label comment stands inside another comment or directive, " + Snippet(text) +
               ", where the library cannot see it");
    return true;
  }
  ReadNumber n = ReadDecimal(text, kCommentHead.size());
  if (!n.read) {
    Warn(&forms_, Finding::kMalformedLabel, 0, at,
         Snippet(text) + " looks like a label comment but carries no number; it stays in the merged page");
    return true;
  }
  if (n.value < 0 || n.value >= Comments()) {
    Warn(&forms_, Finding::kUnknownLabel, 0, at,
         "the label comment " + Snippet(text) +
             " carries a number the page was never given; it stays in the merged page as a comment");
    return true;
  }
  int32_t number = static_cast<int32_t>(n.value);
  if (!IsCommentLabel(text, number))
    Warn(&forms_, Finding::kMalformedLabel, PieceOf(number).line, at,
         Snippet(text) + " is not written as a label comment, but is read as label " + std::to_string(number) +
             " of " + Named(number));
  events_.push_back({number, at, at + text.size()});
  return true;
}

bool Checker::OpenTagBegin(std::u16string_view name, int32_t offset) {
  tagBegin_ = static_cast<size_t>(offset);
  tagNameEnd_ = tagBegin_ + 1 + name.size();
  tagLabels_ = 0;
  tagCounted_ = -1;
  return true;
}

// A label attribute: where it stands in its tag and what number it reads as.
bool Checker::Attribute(std::u16string_view name, std::u16string_view value) {
  if (name.size() != kAttrName.size()) return true;
  bool exact = name == kAttrName;
  if (!exact) {
    std::u16string folded(name);
    for (char16_t& u : folded)
      if (u >= u'A' && u <= u'Z') u = static_cast<char16_t>(u + 32);
    if (folded != kAttrName) return true;
  }
  size_t at = static_cast<size_t>(name.data() - output_.data());
  auto tag = [&] { return Snippet(output_.substr(tagBegin_, tagNameEnd_ - tagBegin_)); };
  if (!exact) {
    Warn(&forms_, Finding::kMalformedLabel, 0, at,
         "the attribute " + EncodeUtf8(name) + " of the tag " + tag() +
             " is not the label attribute as it was put (qzvx, in small letters); it stays in the merged page");
    return true;
  }
  ReadNumber n = ReadDecimal(value, 0);
  bool known = n.value >= 0 && n.value < Attributes();
  size_t line = known ? report_.tags[static_cast<size_t>(n.value)].line : 0;
  bool inPlace = at == tagNameEnd_ + 1 && output_[tagNameEnd_] == u' ' && at + kAttrName.size() < output_.size() &&
                 output_[at + kAttrName.size()] == u'=';
  if (++tagLabels_ > 1) {
    // The library takes the last label of a tag, and does not refuse: the
    // labels before it lose their tags' attributes, and one that is not in
    // place may be left glued to the tag's name.
    Warn(&forms_, Finding::kMovedLabel, line, at,
         "the tag " + tag() + " carries more than one label attribute; the merge reads only the last, " +
             "qzvx=\"" + EncodeUtf8(value) + "\", and may leave the others in the tag's name");
    if (tagCounted_ >= 0) report_.tags[static_cast<size_t>(tagCounted_)].timesBack--;
    tagCounted_ = -1;
  } else if (!inPlace) {
    Warn(&forms_, Finding::kMovedLabel, line, at,
         "the label attribute of the tag " + tag() +
             " is not where it was put (right after the tag's name); the library will refuse the merge");
  }
  if (!AllDigits(value)) {
    std::string what = "the label attribute qzvx=\"" + EncodeUtf8(value) + "\" of the tag " + tag() +
                       " is not a number; it is read as label " + std::to_string(n.value);
    what += known ? ", which gives this tag the source attributes of the tag at line " + std::to_string(line)
                  : ", which the page was never given";
    Warn(&forms_, Finding::kMalformedLabel, line, at, what);
  } else if (!known) {
    Warn(&forms_, Finding::kUnknownLabel, 0, at,
         "the label attribute qzvx=\"" + EncodeUtf8(value) + "\" of the tag " + tag() +
             " carries a number the page was never given; the tag keeps the server's attributes");
  }
  if (!known) return true;
  CheckedTag& labelled = report_.tags[static_cast<size_t>(n.value)];
  size_t place = places_.attributes[static_cast<size_t>(n.value)];
  std::u16string_view pageName =
      labelled.begin < place ? page_.substr(labelled.begin + 1, place - labelled.begin - 1) : std::u16string_view();
  std::u16string_view outputName = output_.substr(tagBegin_ + 1, tagNameEnd_ - tagBegin_ - 1);
  if (!pageName.empty() && !SameNameFolded(pageName, outputName))
    Warn(&forms_, Finding::kMovedLabel, line, at,
         "the label attribute qzvx=\"" + EncodeUtf8(value) + "\" came back in the tag " + tag() +
             ", but was put in the tag `<" + EncodeUtf8(pageName) + "` at line " + std::to_string(line) +
             "; the merge gives " + tag() + " that tag's source attributes");
  labelled.timesBack++;
  tagCounted_ = n.value;
  tagLabelsBack_ = true;
  return true;
}

// Text the library does not read as markup may still hold a label comment,
// which is then lost.
bool Checker::Text(std::u16string_view text, int32_t offset) {
  size_t found = text.find(kCommentHead);
  if (found != std::u16string_view::npos)
    Warn(&forms_, Finding::kMalformedLabel, 0, static_cast<size_t>(offset) + found,
         "a label comment stands in text that is not markup (a script or style element, or a tag the output "
         "leaves without \">\"), where the library cannot see it");
  return true;
}

// Holds each label against the one before it: after a closing label (or at
// the start) the next piece's opening label must come, after an opening
// label a closing one.
void Checker::CheckOrder() {
  int32_t last = -1;
  for (const Event& e : events_) {
    int32_t n = e.number;
    bool afterOpening = last >= 0 && last % 2 == 0;
    if (afterOpening && n % 2 == 0) {
      Warn(&order_, Finding::kOutOfOrder, PieceOf(last).line, e.begin,
           Named(last) + ": its closing label did not come back before the next opening label, that of " +
               Named(n));
    } else if (!afterOpening && n % 2 != 0 && n != last + 1) {
      Warn(&order_, Finding::kOutOfOrder, PieceOf(n).line, e.begin,
           "the closing label of " + Named(n) + " came back without its opening label");
    } else if (!afterOpening && n % 2 == 0 && n <= last) {
      std::string after = n / 2 == last / 2 ? "its own closing label" : "the closing label of " + Named(last);
      Warn(&order_, Finding::kOutOfOrder, PieceOf(n).line, e.begin,
           "the opening label of " + Named(n) + " came back right after " + after +
               ", which no run of the page prints: page text between two pieces runs forward, and only server code "
               "loops back (labels swapped or repeated?)");
    }
    last = n;
  }
  CheckEnd(last);
}

// An output whose last label is an opening one stops inside that piece.
void Checker::CheckEnd(int32_t last) {
  if (last < 0 || last % 2 != 0) return;
  size_t at = events_.back().end;
  if (PieceOf(last).closeLabel < 0) {
    Warn(&order_, Finding::kNeverClosed, PieceOf(last).line, at,
         Named(last) + " has no end in the page itself: an element whose content is not HTML (such as one with "
                       "runat=\"server\") is not closed");
    return;
  }
  Warn(&order_, Finding::kCutOff, PieceOf(last).line, at,
       "the server's output ends inside " + Named(last) +
           ": its closing label never came back (the server may have stopped early: an exit or a fatal error)");
}

// Follows the merge's walk over the label comments: each step locks the
// page from an opening label up to the first closing label after it that
// is not below it, or up to a repeat of the opening label itself (a loop's
// next pass). The walk stops, and the library refuses the merge, at an
// opening label that nothing closes.
void Checker::Cover() {
  cover_.assign(static_cast<size_t>(Comments()) + 1, 0);
  size_t n = events_.size(), p = 0;
  for (;;) {
    while (p < n && events_[p].number % 2 != 0) ++p;
    if (p >= n) break;
    int32_t label = events_[p].number;
    size_t q = p + 1;
    while (q < n && !(events_[q].number % 2 != 0 && events_[q].number >= label)) ++q;
    if (q >= n) {
      refused_ = true;
      // The last label's case is told by CheckEnd.
      if (p + 1 < n)
        Warn(&order_, Finding::kCutOff, PieceOf(label).line, events_[p].begin,
             "no closing label of " + Named(label) +
                 " or of a piece after it came back after its opening label: the library will refuse the merge");
      break;
    }
    int32_t closing;
    if (q - 1 > p && events_[q - 1].number == label) {
      closing = label;
      p = q - 1;
    } else {
      closing = events_[q].number;
      p = q + 1;
    }
    cover_[static_cast<size_t>(label)]++;
    cover_[static_cast<size_t>(closing)]--;
  }
  for (size_t g = 1; g < cover_.size(); ++g) cover_[g] += cover_[g - 1];
}

// What followed each return of an opening label, up to the next label.
void Checker::CountOutputs() {
  for (size_t i = 0; i < events_.size(); ++i) {
    int32_t n = events_[i].number;
    if (n % 2 != 0) continue;
    size_t from = events_[i].end, to = i + 1 < events_.size() ? events_[i + 1].begin : output_.size();
    CheckedPiece& piece = report_.pieces[static_cast<size_t>(n / 2)];
    piece.timesBack++;
    report_.outputs.push_back({static_cast<size_t>(n / 2), from, to});
    if (!IsBlank(output_.substr(from, to - from))) piece.producedOutput = true;
  }
}

// Code the merged page would not hold: pieces whose stretch no step of the
// walk locks, and tags with server code in their attributes whose label
// did not come back and which no lock holds either. Told only when the
// library will merge at all.
void Checker::ReportMissing() {
  auto covered = [&](size_t gap) { return gap + 1 < cover_.size() && cover_[gap] > 0; };
  for (CheckedPiece& p : report_.pieces) {
    p.codeKept = p.closeLabel >= 0 && covered(static_cast<size_t>(p.openLabel));
    if (p.codeKept || p.closeLabel < 0 || refused_) continue;
    Warn(&missing_, Finding::kCodeMissing, p.line, kNoOffset,
         "the server code " + Snippet(p.code) + " would be missing from the merged page: " +
             (p.timesBack == 0 ? "its labels did not come back" : "its labels came back only inside a loop's repeat"));
  }
  size_t gap = 0;  // comment labels at or before the tag's place
  for (CheckedTag& t : report_.tags) {
    size_t place = places_.attributes[static_cast<size_t>(t.label)];
    while (gap < places_.comments.size() && places_.comments[gap] <= place) ++gap;
    t.codeKept = t.timesBack > 0 || (gap > 0 && covered(gap - 1));
    if (t.codeKept || !t.holdsServerCode || refused_) continue;
    Warn(&missing_, Finding::kCodeMissing, t.line, kNoOffset,
         "the server code in the attributes of the tag " + Snippet(page_.substr(t.begin, t.end - t.begin)) +
             " would be missing from the merged page: its label attribute did not come back");
  }
}

LabelReport Checker::Run() {
  MakePieces();
  MakeTags();
  ScanOutput(output_, lastLabel_, *this);
  CheckOrder();
  Cover();
  CountOutputs();
  ReportMissing();
  if (IsBlank(output_) && !IsBlank(page_)) {
    plain_.push_back({Finding::kNoOutput, 0, 0, "the server printed nothing: the merged page would be empty"});
  } else if (events_.empty() && !tagLabelsBack_ && Comments() + Attributes() > 0) {
    plain_.push_back({Finding::kNoLabels, 0, 0,
                      "none of the page's labels came back: the server did not print the page it was given"});
  }
  for (auto* list : {&plain_, &forms_, &order_, &missing_})
    for (LabelWarning& w : *list) report_.warnings.push_back(std::move(w));
  return std::move(report_);
}

}  // namespace

namespace {

// The first position from q on where a label could start ("<!" or " q"), or
// the last position of text; eight positions at a time where SSE2 is there.
size_t NextLabelStart(std::u16string_view text, size_t q) {
  const size_t n = text.size();
#if defined(__SSE2__)
  const __m128i lt = _mm_set1_epi16('<'), bang = _mm_set1_epi16('!');
  const __m128i blank = _mm_set1_epi16(' '), letter = _mm_set1_epi16('q');
  for (; q + 9 <= n; q += 8) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + q));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + q + 1));
    const __m128i hit = _mm_or_si128(_mm_and_si128(_mm_cmpeq_epi16(a, lt), _mm_cmpeq_epi16(b, bang)),
                                     _mm_and_si128(_mm_cmpeq_epi16(a, blank), _mm_cmpeq_epi16(b, letter)));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
    if (mask != 0) return q + static_cast<size_t>(__builtin_ctz(mask)) / 2;
  }
#endif
  while (q + 1 < n && !((text[q] == u'<' && text[q + 1] == u'!') || (text[q] == u' ' && text[q + 1] == u'q'))) ++q;
  return q;
}

}  // namespace

bool LocateLabels(std::u16string_view page, std::u16string_view labelled, LabelPlaces* places) {
  *places = LabelPlaces();
  std::u16string comment = CommentLabel(0), attr = AttrLabel(0);
  size_t p = 0, q = 0;
  while (q < labelled.size()) {
    // Up to the next place where a label could start, the two texts must
    // be equal: compared as one run rather than unit by unit.
    size_t run = NextLabelStart(labelled, q);
    if (run > q) {
      size_t n = run - q;
      if (p + n > page.size() || std::memcmp(labelled.data() + q, page.data() + p, n * sizeof(char16_t)) != 0)
        return false;
      p += n;
      q += n;
    }
    char16_t u = labelled[q];
    char16_t next = q + 1 < labelled.size() ? labelled[q + 1] : u'\0';
    if (u == u'<' && next == u'!' && labelled.substr(q, comment.size()) == comment) {
      places->comments.push_back(p);
      q += comment.size();
      comment = CommentLabel(places->comments.size());
    } else if (u == u' ' && next == u'q' && labelled.substr(q, attr.size()) == attr) {
      places->attributes.push_back(p);
      q += attr.size();
      attr = AttrLabel(places->attributes.size());
    } else if (p < page.size() && page[p] == u) {
      ++p;
      ++q;
    } else {
      return false;
    }
  }
  return p == page.size();
}

LabelReport CheckLabels(std::u16string_view page, const LabelPlaces& places, std::u16string_view output,
                        std::u16string_view directiveStart, std::u16string_view lastLabel) {
  Checker checker(page, places, output, directiveStart, lastLabel);
  return checker.Run();
}

}  // namespace qzhost
