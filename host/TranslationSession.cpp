// The translator sequence over the library's script functions.
#include "TranslationSession.h"

#include <algorithm>
#include <cstdint>

#include "HostContract.h"
#include "LibrarySink.h"
#include "Lines.h"
#include "MergeDiagnosis.h"
#include "Scanner.h"
#include "Utf8.h"

namespace qzhost {
namespace {

// The start of what the end of the page cut off, for a warning: up to 24
// units of its first line.
std::string CutSnippet(std::u16string_view rest) {
  size_t shown = std::min<size_t>(rest.size(), 24);
  for (size_t i = 0; i < shown; ++i)
    if (rest[i] == u'\n' || rest[i] == u'\r') shown = i;
  std::string snippet = "`";
  snippet += EncodeUtf8(rest.substr(0, shown));
  snippet += shown < rest.size() ? "...`" : "`";
  return snippet;
}

// Where text holds server code of the profile: a directive start, an
// include, a server tag by its prefix or by a runat attribute; npos when
// it holds none.
size_t ServerCodeIn(std::u16string_view text, const Profile& profile) {
  size_t at = std::u16string_view::npos;
  auto consider = [&](std::u16string_view what) { at = std::min(at, text.find(what)); };
  if (!profile.directiveStart.empty()) consider(profile.directiveStart);
  consider(u"#include");
  for (const std::u16string& prefix : profile.tagPrefixes) consider(u"<" + prefix);
  if (profile.attributeRules)
    for (const std::u16string& name : profile.ruleNames) consider(name + u"=");
  return at;
}

std::u16string LabelComment(size_t n) {
  std::string digits = std::to_string(n);
  return kLabelCommentHead + std::u16string(digits.begin(), digits.end()) + kLabelCommentTail;
}

std::u16string LabelAttribute(size_t n) {
  std::string digits = std::to_string(n);
  return kLabelAttrHead + std::u16string(digits.begin(), digits.end()) + kLabelAttrTail;
}

}  // namespace

TranslationSession::TranslationSession(Engine& engine, const Profile& profile) : engine_(engine), profile_(profile) {}

TranslationSession::~TranslationSession() {
  if (!started_) return;
  std::string ignored;
  Value result;
  Call("cleanup", {}, &result, &ignored);
}

bool TranslationSession::Call(const char* name, std::vector<Value> args, Value* result, std::string* error) {
  NativeFn fn = engine_.Find(name);
  if (!fn) {
    *error = std::string("the library has no script function ") + name;
    return false;
  }
  *result = kNull;
  if (!fn(&engine_, nullptr, static_cast<uint32_t>(args.size()), args.data(), result)) {
    *error = std::string("the library's ") + name + " failed";
    return false;
  }
  return true;
}

Value TranslationSession::StrArray(const std::vector<std::u16string>& texts) {
  std::vector<Value> values;
  for (const std::u16string& t : texts) values.push_back(engine_.Str(t));
  return engine_.Array(std::move(values));
}

// The arguments of beginPreTranslate: four, or seven with the attribute rules.
std::vector<Value> TranslationSession::PreSettings() {
  std::vector<Value> settings = {engine_.Str(profile_.directiveStart), engine_.Str(profile_.directiveEnd),
                                 StrArray(profile_.tagPrefixes), StrArray(profile_.nonHtmlTags)};
  if (!profile_.attributeRules) return settings;
  std::vector<Value> flags;
  for (int64_t f : profile_.ruleNonHtml) flags.push_back(engine_.Int(f));
  settings.push_back(StrArray(profile_.ruleNames));
  settings.push_back(StrArray(profile_.ruleValues));
  settings.push_back(engine_.Array(std::move(flags)));
  return settings;
}

// Reports text to the library's callbacks; in the pre pass the constructs
// that the end of the text cut off become warnings.
// The text is the session's own; the sink writes into it during each call
// and leaves it as it was.
bool TranslationSession::Scan(std::u16string& text, const char* what, bool prePass, std::string* error) {
  std::u16string_view start = prePass ? std::u16string_view(profile_.directiveStart) : std::u16string_view();
  LibrarySink sink(engine_, start, profile_.directiveEnd);
  sink.WriteInto(&text);
  bool ok = ScanOutput(text, prePass ? u"" : LastLabelApart(), sink);
  if (!ok) *error = sink.Failure().empty() ? std::string(what) + " could not be scanned" : sink.Failure();
  if (prePass) {
    cuts_ = sink.Cuts();
    hasOpenEnd_ = sink.HasOpenEnd();
    openEnd_ = sink.GetOpenEnd();
  }
  return ok;
}

// Notes whether the library took the directive open at the end of the page
// as a piece of server code (its closing label then ends the labelled page).
// If so, and the server runs a block left open as code, the closing text
// goes before that label, where the server needs it.
void TranslationSession::CloseOpenEnd(std::u16string_view page, int32_t offset, const OpenEnd& open,
                                      std::u16string* labelled) {
  const std::vector<size_t>& places = places_.comments;
  size_t n = places.size();
  openEndLabelled_ =
      located_ && n >= 2 && places[n - 1] == page.size() && places[n - 2] == static_cast<size_t>(offset);
  if (!openEndLabelled_ || !profile_.openBlockIsCode || !open.bServerBlockOpen) return;
  std::u16string last = LabelComment(n - 1);
  labelled->insert(labelled->size() - last.size(), open.closing);
  closedOpenEnd_ = true;
  echoedEnd_ = std::u16string(page.substr(static_cast<size_t>(offset))) + open.closing + last;
}

// The labelled page of the last Label: the page with its labels put back
// at their places (a label attribute before a label comment at the same
// place, as the library puts them), and the closing text of an open end
// before the last label.
std::u16string TranslationSession::LabelledPage() const {
  if (!located_) return labelledPage_;
  std::u16string labelled;
  const std::vector<size_t>& comments = places_.comments;
  const std::vector<size_t>& attrs = places_.attributes;
  size_t i = 0, j = 0, p = 0;
  while (i < comments.size() || j < attrs.size()) {
    bool bAttr = j < attrs.size() && (i >= comments.size() || attrs[j] <= comments[i]);
    size_t at = bAttr ? attrs[j] : comments[i];
    labelled.append(page_, p, at - p);
    labelled += bAttr ? LabelAttribute(j++) : LabelComment(i++);
    p = at;
  }
  labelled.append(page_, p, std::u16string::npos);
  if (closedOpenEnd_) labelled.insert(labelled.size() - LabelComment(comments.size() - 1).size(), openEnd_.closing);
  return labelled;
}

// The page's last label, read apart from what comes before it in the
// server's output (ScanOutput), when the page ends in a piece left open.
std::u16string TranslationSession::LastLabelApart() const {
  return openEndLabelled_ ? LabelComment(places_.comments.size() - 1) : u"";
}

// One warning per construct the end of the page cut off, saying what
// becomes of it and of any server code in it.
void TranslationSession::DescribeCuts(std::u16string_view page) {
  for (const auto& [kind, offset] : cuts_) {
    std::u16string_view rest = page.substr(static_cast<size_t>(offset));
    size_t line = LineOfUnit(page, static_cast<size_t>(offset));
    std::string snippet = CutSnippet(rest);
    size_t code = ServerCodeIn(rest, profile_);
    std::string codeLine = code == std::u16string_view::npos ? "" : std::to_string(LineOfUnit(page, offset + code));
    std::string lost = "; the server code in it (line " + codeLine +
                       ") is not labelled: the server runs it, its output comes back as plain, unlocked text, and "
                       "the code itself is missing from the merged page";
    std::string piece = snippet + " is not closed before the end of the page; it is taken as one piece of server "
                                  "code up to the end of the page";
    if (kind == Unfinished::kDirective && closedOpenEnd_) {
      warnings_.push_back({Finding::kOpenAtEnd, line, 0,
                           piece + ": the server gets it closed with `" + ShownClosing(openEnd_.closing) +
                               "`, and the merged page keeps it as written, locked"});
    } else if (kind == Unfinished::kDirective && openEndLabelled_) {
      warnings_.push_back({Finding::kOpenAtEnd, line, 0,
                           piece + ": the merged page keeps it as written, locked, with what the server made of it"});
    } else if (kind == Unfinished::kDirective && hasOpenEnd_ && openEnd_.bHoldsCode) {
      warnings_.push_back({Finding::kNotLabelled, line, 0,
                           snippet + " is not closed before the end of the page, and the library does not take it "
                                     "as server code here" + lost});
    } else if (kind == Unfinished::kDirective) {
      warnings_.push_back(
          {Finding::kOpenAtEnd, line, 0, snippet + " is not closed before the end of the page; it runs to the end"});
    } else {
      std::string what = kind == Unfinished::kRawText
                             ? snippet + " has no close tag before the end of the page"
                             : "the tag " + snippet + " has no \">\" before the end of the page";
      if (codeLine.empty())
        warnings_.push_back({Finding::kOpenAtEnd, line, 0, what + "; it and all that follows are kept as text"});
      else
        warnings_.push_back({Finding::kNotLabelled, line, 0, what + ", so it and all that follows are text" + lost});
    }
  }
}

// The output as the merge takes it: without the closing text of an open
// end when the server handed it back unchanged.
std::u16string_view TranslationSession::Unclosed(std::u16string_view output, std::u16string* buffer) const {
  if (!closedOpenEnd_ || output.size() < echoedEnd_.size() ||
      output.substr(output.size() - echoedEnd_.size()) != echoedEnd_)
    return output;
  size_t lastSize = LabelComment(places_.comments.size() - 1).size();
  *buffer = std::u16string(output);
  buffer->erase(buffer->size() - lastSize - openEnd_.closing.size(), openEnd_.closing.size());
  return *buffer;
}

size_t TranslationSession::ServerCodeLine(const std::vector<size_t>& offsets) const {
  // Most pages have no character to look for: their pieces are not listed.
  if (offsets.empty()) return 0;
  using Span = std::pair<size_t, size_t>;
  std::vector<Span> pieces, blocks;
  const std::vector<size_t>& labels = places_.comments;
  for (size_t n = 0; located_ && n < labels.size(); n += 2)
    pieces.push_back({labels[n], n + 1 < labels.size() ? labels[n + 1] : page_.size()});
  const std::u16string &start = profile_.directiveStart, &end = profile_.directiveEnd;
  for (size_t at = start.empty() ? std::u16string::npos : page_.find(start); at != std::u16string::npos;) {
    size_t close = page_.find(end, at + start.size());
    size_t past = close == std::u16string::npos ? page_.size() : close + end.size();
    blocks.push_back({at, past});
    at = page_.find(start, past);
  }
  auto inside = [](const std::vector<Span>& spans, size_t offset) {
    auto after = std::upper_bound(spans.begin(), spans.end(), Span{offset, SIZE_MAX});
    return after != spans.begin() && offset < std::prev(after)->second;
  };
  for (size_t offset : offsets)
    if (inside(pieces, offset) || inside(blocks, offset)) return LineOfUnit(page_, offset);
  return 0;
}

LabelReport TranslationSession::Check(std::u16string_view output) const {
  if (!located_) {
    LabelReport report;
    report.warnings.push_back({Finding::kNoLabels, 0, 0,
                               "the labels could not be told apart from the page's own text (the page holds text "
                               "written like a label), so the server's output was not checked"});
    return report;
  }
  std::u16string buffer;
  LabelReport report =
      CheckLabels(page_, places_, Unclosed(output, &buffer), profile_.directiveStart, LastLabelApart());
  // The page's own markup is at fault there, and the line of the piece is
  // seldom where: name the close tag that ended its element early.
  for (LabelWarning& warning : report.warnings)
    if (warning.kind == Finding::kNeverClosed) warning.message += CauseInPage(page_, profile_, warning.pageLine);
  return report;
}

bool TranslationSession::Start(std::string* error) {
  Value result;
  // cleanup is due even after a failed initialize, which may have made some
  // of the session's arrays.
  started_ = true;
  return Call("initialize", {}, &result, error);
}

bool TranslationSession::Label(std::u16string_view page, std::u16string* labelled, std::string* error) {
  if (page.size() > kMaxScanUnits) {
    *error = "the page is too long to translate";
    return false;
  }
  return Label(std::u16string(page), labelled, error);
}

bool TranslationSession::Label(std::u16string&& page, std::u16string* labelled, std::string* error) {
  if (!started_) {
    *error = "the session was not started";
    return false;
  }
  if (page.size() > kMaxScanUnits) {
    *error = "the page is too long to translate";
    return false;
  }
  labelled_ = false;
  warnings_.clear();
  cuts_.clear();
  hasOpenEnd_ = openEndLabelled_ = closedOpenEnd_ = located_ = false;
  echoedEnd_.clear();
  Engine::Mark mark = engine_.Save();
  page_ = std::move(page);
  Value result;
  bool ok = Call("beginPreTranslate", PreSettings(), &result, error) && Scan(page_, "the page", true, error);
  // endPreTranslate closes the pre pass whatever happened before it, so that
  // the next page can begin one.
  std::string endError;
  bool ended = Call("endPreTranslate", {engine_.View(page_)}, &result, &endError);
  if (ok && !ended) {
    *error = endError;
    ok = false;
  }
  if (ok && !engine_.IsString(result)) {
    *error = "the library's endPreTranslate returned no text";
    ok = false;
  }
  if (ok) {
    *labelled = engine_.Take(result);
    located_ = LocateLabels(page_, *labelled, &places_);
    if (hasOpenEnd_) CloseOpenEnd(page_, cuts_.back().second, openEnd_, labelled);
    // Kept whole only when the label places are unknown; otherwise the
    // labelled page is made again from them should a merge fail.
    if (!located_) labelledPage_ = *labelled;
    labelled_ = true;
  }
  DescribeCuts(page_);
  if (!ok) page_.clear();
  engine_.Release(mark);
  return ok;
}

bool TranslationSession::Merge(std::u16string_view output, std::u16string* merged, std::string* error) {
  if (output.size() > kMaxScanUnits) {
    *error = "the server's output is too long to merge";
    return false;
  }
  return Merge(std::u16string(output), merged, error);
}

bool TranslationSession::Merge(std::u16string&& output, std::u16string* merged, std::string* error) {
  if (!labelled_) {
    *error = "the page was not labelled before the merge";
    return false;
  }
  if (output.size() > kMaxScanUnits) {
    *error = "the server's output is too long to merge";
    return false;
  }
  // The scan writes into the output (LibrarySink), which is the session's
  // own from here on.
  std::u16string buffer = std::move(output);
  std::u16string unclosed;
  if (Unclosed(buffer, &unclosed).data() != buffer.data()) buffer.swap(unclosed);
  std::u16string().swap(unclosed);
  Engine::Mark mark = engine_.Save();
  Value result;
  bool ok = Call("beginPostTranslate", {}, &result, error) && Scan(buffer, "the server's output", false, error);
  if (ok) {
    std::vector<Value> args = {engine_.View(page_), engine_.View(buffer),
                               engine_.Str(profile_.lockBeginFormat), engine_.Str(profile_.lockEndText),
                               engine_.Str(profile_.translatedValue)};
    if (profile_.lockEmptyPrefixedTags >= 0) args.push_back(Engine::Bool(profile_.lockEmptyPrefixedTags != 0));
    if (!Call("endPostTranslate", args, &result, error)) {
      *error = "the library rejected the merge of the server's output";
      std::string why = ExplainRejectedMerge(page_, LabelledPage(), buffer, profile_);
      if (!why.empty()) *error += ": " + why;
      ok = false;
    } else if (!engine_.IsString(result)) {
      *error = "the library's endPostTranslate returned no text";
      ok = false;
    } else {
      *merged = engine_.Take(result);
    }
  }
  engine_.Release(mark);
  return ok;
}

}  // namespace qzhost
