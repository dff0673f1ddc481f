// The translator sequence over the library's script functions, and the
// profiles that fill in its arguments.
#include "Translator.h"

#include <algorithm>
#include <cstdint>

#include "Scanner.h"
#include "Utf8.h"

namespace qzhost {
namespace {

Profile MakePhp() {
  Profile p;
  p.name = "php";
  p.extensions = {"php", "php3", "php4", "php5", "phtml"};
  // Warnings and errors go to standard error, once, and never into the page.
  p.serverCommand = "php -d display_errors=stderr -d log_errors=0";
  p.directiveStart = u"<?";
  p.directiveEnd = u"?>";
  return p;
}

Profile MakeErb() {
  Profile p;
  p.name = "erb";
  p.extensions = {"erb", "rhtml"};
  // "-T -" also accepts the <%- and -%> forms that trim white space.
  p.serverCommand = "erb -T -";
  p.directiveStart = u"<%";
  p.directiveEnd = u"%>";
  return p;
}

Profile MakeAsp() {
  Profile p;
  p.name = "asp";
  p.extensions = {"asp", "aspx", "ascx", "master"};
  p.directiveStart = u"<%";
  p.directiveEnd = u"%>";
  p.tagPrefixes = {u"asp:"};
  p.attributeRules = true;
  p.ruleNames = {u"runat"};
  p.ruleValues = {u"server"};
  p.ruleNonHtml = {1};
  // Server controls that render nothing keep their tag form, so the editor
  // still shows something it can select.
  p.lockEmptyPrefixedTags = 0;
  return p;
}

char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// Forwards every scanned item to the library's scanner callbacks. Each call
// gets fresh script values, dropped again once the call has returned.
class LibrarySink : public ScanSink {
 public:
  explicit LibrarySink(Engine& engine) : engine_(engine) {
    directive_ = engine.Find("directive");
    openTagBegin_ = engine.Find("openTagBegin");
    attribute_ = engine.Find("attribute");
    openTagEnd_ = engine.Find("openTagEnd");
    closeTagBegin_ = engine.Find("closeTagBegin");
    closeTagEnd_ = engine.Find("closeTagEnd");
    text_ = engine.Find("text");
  }

  bool Directive(std::u16string_view text, int32_t offset) override {
    return Send(directive_, "directive", offset, {Str(text), engine_.Int(offset)});
  }
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    tagOffset_ = offset;
    return Send(openTagBegin_, "openTagBegin", offset, {Str(name), engine_.Int(offset)});
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    return Send(attribute_, "attribute", tagOffset_, {Str(name), Str(value)});
  }
  bool OpenTagEnd(int32_t endOffset, std::u16string_view closing) override {
    return Send(openTagEnd_, "openTagEnd", tagOffset_, {engine_.Int(endOffset), Str(closing)});
  }
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override {
    tagOffset_ = offset;
    return Send(closeTagBegin_, "closeTagBegin", offset, {Str(name), engine_.Int(offset)});
  }
  bool CloseTagEnd(int32_t endOffset) override {
    return Send(closeTagEnd_, "closeTagEnd", tagOffset_, {engine_.Int(endOffset)});
  }
  bool Text(std::u16string_view text, int32_t offset) override {
    return Send(text_, "text", offset, {Str(text), engine_.Int(offset)});
  }

  void Cut(Unfinished kind, int32_t offset) override { cuts_.push_back({kind, offset}); }

  // Which callback failed, for the item at which offset; empty while none did.
  const std::string& Failure() const { return failure_; }
  const std::vector<std::pair<Unfinished, int32_t>>& Cuts() const { return cuts_; }

 private:
  Value Str(std::u16string_view text) { return engine_.Str(std::u16string(text)); }

  bool Send(NativeFn fn, const char* name, int32_t offset, std::initializer_list<Value> args) {
    if (!fn) {
      failure_ = std::string("the library has no script function ") + name;
      return false;
    }
    std::vector<Value> argv(args);
    Value result = kNull;
    int ok = fn(&engine_, nullptr, static_cast<uint32_t>(argv.size()), argv.data(), &result);
    engine_.Release(mark_);
    if (!ok) {
      failure_ = std::string("the library's ") + name + " failed on the item at offset " + std::to_string(offset);
      return false;
    }
    return true;
  }

  Engine& engine_;
  Engine::Mark mark_ = engine_.Save();
  NativeFn directive_, openTagBegin_, attribute_, openTagEnd_, closeTagBegin_, closeTagEnd_, text_;
  int32_t tagOffset_ = 0;  // the "<" of the tag being reported
  std::string failure_;
  std::vector<std::pair<Unfinished, int32_t>> cuts_;
};

// A label comment as the library reads it back: "<!--QZVX", white space,
// a decimal number.
struct FoundLabel {
  int64_t number;
  size_t offset;
};

std::vector<FoundLabel> FindLabelComments(std::u16string_view text) {
  static constexpr std::u16string_view kHead = u"<!--QZVX";
  std::vector<FoundLabel> found;
  for (size_t p = text.find(kHead); p != std::u16string_view::npos; p = text.find(kHead, p + 1)) {
    size_t q = p + kHead.size();
    while (q < text.size() && IsScanSpace(text[q])) ++q;
    bool negative = q < text.size() && text[q] == u'-';
    if (negative || (q < text.size() && text[q] == u'+')) ++q;
    if (q >= text.size() || text[q] < u'0' || text[q] > u'9') continue;
    int64_t n = 0;
    for (; q < text.size() && text[q] >= u'0' && text[q] <= u'9'; ++q)
      if (n < INT32_MAX) n = n * 10 + (text[q] - u'0');
    found.push_back({negative ? -n : n, p});
  }
  return found;
}

size_t LineAt(std::u16string_view text, size_t offset) {
  size_t line = 1;
  for (size_t i = 0; i < offset && i < text.size(); ++i)
    if (text[i] == u'\n') ++line;
  return line;
}

// Line of the page where label comment number stands in the labelled page
// (labels hold no line breaks, so lines agree with the page's), or 0.
size_t PageLineOfLabel(std::u16string_view labelled, const std::vector<FoundLabel>& labels, int64_t number) {
  for (const FoundLabel& l : labels)
    if (l.number == number) return LineAt(labelled, l.offset);
  return 0;
}

// A warning about a construct of the page that its end cut off.
std::string DescribeCut(std::u16string_view page, Unfinished kind, int32_t offset) {
  std::u16string_view rest = page.substr(static_cast<size_t>(offset));
  size_t shown = std::min<size_t>(rest.size(), 24);
  for (size_t i = 0; i < shown; ++i)
    if (rest[i] == u'\n' || rest[i] == u'\r') shown = i;
  std::string snippet = EncodeUtf8(rest.substr(0, shown)) + (shown < rest.size() ? "..." : "");
  std::string where = "line " + std::to_string(LineAt(page, static_cast<size_t>(offset))) + ": ";
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

const std::vector<Profile>& Profiles() {
  static const std::vector<Profile> profiles = [] {
    std::vector<Profile> all = {MakePhp(), MakeErb(), MakeAsp()};
    for (Profile& p : all) {
      p.lockBeginFormat = kLockBeginFormat;
      p.lockEndText = kLockEndText;
      p.translatedValue = kTranslatedValue;
    }
    return all;
  }();
  return profiles;
}

const Profile* FindProfile(std::string_view name) {
  for (const Profile& p : Profiles())
    if (p.name == name) return &p;
  return nullptr;
}

const Profile* ProfileForPath(std::string_view path) {
  size_t slash = path.find_last_of('/');
  std::string_view file = slash == std::string_view::npos ? path : path.substr(slash + 1);
  size_t dot = file.find_last_of('.');
  if (dot == std::string_view::npos) return nullptr;
  std::string ext;
  for (char c : file.substr(dot + 1)) ext.push_back(FoldAscii(c));
  for (const Profile& p : Profiles())
    for (const std::string& e : p.extensions)
      if (e == ext) return &p;
  return nullptr;
}

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
  std::vector<Value> settings = {engine_.Str(profile_.directiveStart), engine_.Str(profile_.directiveEnd),
                                 StrArray(profile_.tagPrefixes), StrArray(profile_.nonHtmlTags)};
  if (profile_.attributeRules) {
    std::vector<Value> flags;
    for (int64_t f : profile_.ruleNonHtml) flags.push_back(engine_.Int(f));
    settings.push_back(StrArray(profile_.ruleNames));
    settings.push_back(StrArray(profile_.ruleValues));
    settings.push_back(engine_.Array(std::move(flags)));
  }
  Value result;
  bool ok = Call("beginPreTranslate", settings, &result, error);
  if (ok) {
    LibrarySink sink(engine_);
    if (!ScanPage(page, sink)) {
      *error = sink.Failure().empty() ? "the page could not be scanned" : sink.Failure();
      ok = false;
    }
    for (const auto& [kind, offset] : sink.Cuts()) warnings_.push_back(DescribeCut(page, kind, offset));
  }
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
  bool ok = Call("beginPostTranslate", {}, &result, error);
  if (ok) {
    LibrarySink sink(engine_);
    if (!ScanPage(output, sink)) {
      *error = sink.Failure().empty() ? "the server's output could not be scanned" : sink.Failure();
      ok = false;
    }
  }
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

std::string ExplainRejectedMerge(std::u16string_view labelled, std::u16string_view output) {
  std::vector<FoundLabel> sent = FindLabelComments(labelled);
  std::vector<FoundLabel> back = FindLabelComments(output);
  // A start label (even) needs an end label (odd, not below it) somewhere
  // after it; a start whose end never came back means the server dropped the
  // rest of that stretch.
  auto closedAfter = [](const std::vector<FoundLabel>& labels) {
    std::vector<int64_t> maxOdd(labels.size() + 1, -1);
    for (size_t i = labels.size(); i-- > 0;)
      maxOdd[i] = std::max(maxOdd[i + 1], labels[i].number % 2 != 0 ? labels[i].number : int64_t{-1});
    return maxOdd;
  };
  std::vector<int64_t> sentClosed = closedAfter(sent), backClosed = closedAfter(back);
  for (size_t i = 0; i < back.size(); ++i) {
    int64_t start = back[i].number;
    if (start < 0 || start % 2 != 0 || backClosed[i + 1] >= start) continue;
    std::string why = "the server code that starts at label " + std::to_string(start);
    size_t line = PageLineOfLabel(labelled, sent, start);
    if (line) why += " (line " + std::to_string(line) + " of the page)";
    for (size_t k = 0; k < sent.size(); ++k) {
      if (sent[k].number != start || sentClosed[k + 1] >= start) continue;
      return why + " has no end in the page itself: an element whose content is not HTML (such as one with "
                   "runat=\"server\") is not closed";
    }
    return why + " produced output whose closing label never came back; the server may have stopped early "
                 "(an exit or a fatal error) or dropped part of the page";
  }
  // A label attribute must stand right after its tag's name, where it was put.
  static constexpr std::u16string_view kAttr = u" qzvx=";
  for (size_t p = output.find(kAttr); p != std::u16string_view::npos; p = output.find(kAttr, p + 1)) {
    size_t q = p;
    while (q > 0 && !IsScanSpace(output[q - 1]) && output[q - 1] != u'<' && output[q - 1] != u'>') --q;
    if (q < p && q > 0 && output[q - 1] == u'<') continue;
    return "the server moved or rewrote the label attribute of a tag (line " + std::to_string(LineAt(output, p)) +
           " of its output); labels must come back where they were put";
  }
  return "";
}

}  // namespace qzhost
