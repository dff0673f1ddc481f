// The translator sequence over the library's script functions.
#include "TranslationSession.h"

#include <algorithm>

#include "LibrarySink.h"
#include "Lines.h"
#include "MergeDiagnosis.h"
#include "Scanner.h"
#include "Utf8.h"

namespace qzhost {
namespace {

// A warning about a construct of the page that its end cut off.
std::string DescribeCut(std::u16string_view page, Unfinished kind, int32_t offset) {
  std::u16string_view rest = page.substr(static_cast<size_t>(offset));
  size_t shown = std::min<size_t>(rest.size(), 24);
  for (size_t i = 0; i < shown; ++i)
    if (rest[i] == u'\n' || rest[i] == u'\r') shown = i;
  std::string snippet = EncodeUtf8(rest.substr(0, shown)) + (shown < rest.size() ? "..." : "");
  std::string where = "line " + std::to_string(LineOfUnit(page, static_cast<size_t>(offset))) + ": ";
  switch (kind) {
    case Unfinished::kDirective:
      return where + "`" + snippet + "` is not closed before the end of the page";
    case Unfinished::kOpenTag:
    case Unfinished::kCloseTag:
      return where + "the tag `" + snippet +
             "` has no \">\" before the end of the page; it and all that follows are kept as text";
    case Unfinished::kRawText:
      return where + "`" + snippet +
             "` has no close tag before the end of the page; it and all that follows are kept as text";
  }
  return where + "`" + snippet + "` is cut off by the end of the page";
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
bool TranslationSession::Scan(std::u16string_view text, const char* what, bool prePass, std::string* error) {
  LibrarySink sink(engine_);
  bool ok = ScanPage(text, sink);
  if (!ok) *error = sink.Failure().empty() ? std::string(what) + " could not be scanned" : sink.Failure();
  if (prePass)
    for (const auto& [kind, offset] : sink.Cuts()) warnings_.push_back(DescribeCut(text, kind, offset));
  return ok;
}

bool TranslationSession::Start(std::string* error) {
  Value result;
  // cleanup is due even after a failed initialize, which may have made some
  // of the session's arrays.
  started_ = true;
  return Call("initialize", {}, &result, error);
}

bool TranslationSession::Label(std::u16string_view page, std::u16string* labelled, std::string* error) {
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
  Engine::Mark mark = engine_.Save();
  Value result;
  bool ok = Call("beginPreTranslate", PreSettings(), &result, error) && Scan(page, "the page", true, error);
  // endPreTranslate closes the pre pass whatever happened before it, so that
  // the next page can begin one.
  std::string endError;
  bool ended = Call("endPreTranslate", {engine_.Str(std::u16string(page))}, &result, &endError);
  if (ok && !ended) {
    *error = endError;
    ok = false;
  }
  if (ok && !engine_.IsString(result)) {
    *error = "the library's endPreTranslate returned no text";
    ok = false;
  }
  if (ok) {
    *labelled = engine_.ToText(result);
    page_ = page;
    labelledPage_ = *labelled;
    labelled_ = true;
  }
  engine_.Release(mark);
  return ok;
}

bool TranslationSession::Merge(std::u16string_view output, std::u16string* merged, std::string* error) {
  if (!labelled_) {
    *error = "the page was not labelled before the merge";
    return false;
  }
  if (output.size() > kMaxScanUnits) {
    *error = "the server's output is too long to merge";
    return false;
  }
  Engine::Mark mark = engine_.Save();
  Value result;
  bool ok = Call("beginPostTranslate", {}, &result, error) && Scan(output, "the server's output", false, error);
  if (ok) {
    std::vector<Value> args = {engine_.Str(page_), engine_.Str(std::u16string(output)),
                               engine_.Str(profile_.lockBeginFormat), engine_.Str(profile_.lockEndText),
                               engine_.Str(profile_.translatedValue)};
    if (profile_.lockEmptyPrefixedTags >= 0) args.push_back(Engine::Bool(profile_.lockEmptyPrefixedTags != 0));
    if (!Call("endPostTranslate", args, &result, error)) {
      *error = "the library rejected the merge of the server's output";
      std::string why = ExplainRejectedMerge(labelledPage_, output);
      if (!why.empty()) *error += ": " + why;
      ok = false;
    } else if (!engine_.IsString(result)) {
      *error = "the library's endPostTranslate returned no text";
      ok = false;
    } else {
      *merged = engine_.ToText(result);
    }
  }
  engine_.Release(mark);
  return ok;
}

}  // namespace qzhost
