// The fuzz targets' host: input decoding, settings, and checked calls of the
// library's script functions.
#include "FuzzHost.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Scanner.h"
#include "Utf8.h"

// The library's one entry function, as every host declares it.
extern "C" intptr_t QZ_InitWrapper(void* const* table, uint32_t sizeInBytes);

namespace qzfuzz {

void Check(bool bHolds, const std::string& what) {
  if (bHolds) return;
  std::fprintf(stderr, "fuzz: broken promise: %s\n", what.c_str());
  std::abort();
}

std::string Shown(std::u16string_view text) {
  constexpr size_t kMost = 400;
  if (text.size() <= kMost) return qzhost::EncodeUtf8(text);
  return qzhost::EncodeUtf8(text.substr(0, kMost)) + "... (" + std::to_string(text.size()) + " units)";
}

std::vector<std::string_view> SplitFields(std::string_view bytes) {
  std::vector<std::string_view> fields;
  for (;;) {
    size_t at = bytes.find('\xff');
    fields.push_back(bytes.substr(0, at));
    if (at == std::string_view::npos) return fields;
    bytes.remove_prefix(at + 1);
  }
}

std::u16string DecodeLoosely(std::string_view bytes) {
  std::u16string out;
  out.reserve(bytes.size());
  size_t i = 0;
  auto continuation = [&](size_t k) { return i + k < bytes.size() && (bytes[i + k] & 0xC0) == 0x80; };
  auto low = [&](size_t k) { return static_cast<uint32_t>(bytes[i + k] & 0x3F); };
  while (i < bytes.size()) {
    const uint8_t b = static_cast<uint8_t>(bytes[i]);
    if (b >= 0xC2 && b <= 0xDF && continuation(1)) {
      out.push_back(static_cast<char16_t>((b & 0x1Fu) << 6 | low(1)));
      i += 2;
      continue;
    }
    if (b >= 0xE0 && b <= 0xEF && continuation(1) && continuation(2)) {
      uint32_t c = (b & 0x0Fu) << 12 | low(1) << 6 | low(2);
      if (c >= 0x800) {
        out.push_back(static_cast<char16_t>(c));
        i += 3;
        continue;
      }
    }
    if (b >= 0xF0 && b <= 0xF4 && continuation(1) && continuation(2) && continuation(3)) {
      uint32_t c = (b & 0x07u) << 18 | low(1) << 12 | low(2) << 6 | low(3);
      if (c >= 0x10000 && c <= 0x10FFFF) {
        out.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        i += 4;
        continue;
      }
    }
    out.push_back(b);
    ++i;
  }
  return out;
}

namespace {

std::vector<std::u16string> List(std::string_view field) {
  std::vector<std::u16string> items;
  if (field.empty()) return items;
  for (;;) {
    size_t at = field.find(',');
    items.push_back(DecodeLoosely(field.substr(0, at)));
    if (at == std::string_view::npos) return items;
    field.remove_prefix(at + 1);
  }
}

std::vector<int64_t> Numbers(std::string_view field) {
  std::vector<int64_t> numbers;
  for (const std::u16string& item : List(field)) {
    std::string digits(item.begin(), item.end());
    numbers.push_back(std::strtoll(digits.c_str(), nullptr, 10));
  }
  return numbers;
}

}  // namespace

Settings PickSettings(uint8_t selector, const std::vector<std::string_view>& fields) {
  Settings s;
  switch (selector % 4) {
    case 0:
      s.dirStart = u"<?", s.dirEnd = u"?>";
      return s;
    case 1:
      s.dirStart = u"<%", s.dirEnd = u"%>";
      return s;
    case 2:
      s.dirStart = u"<%", s.dirEnd = u"%>";
      s.prefixes = {u"asp:"};
      s.bRules = true;
      s.ruleNames = {u"runat"}, s.ruleValues = {u"server"}, s.ruleFlags = {1};
      s.lockEmptyPrefixedTags = 0;
      return s;
  }
  auto field = [&](size_t k) { return k < fields.size() ? fields[k] : std::string_view(); };
  s.dirStart = DecodeLoosely(field(0));
  s.dirEnd = DecodeLoosely(field(1));
  s.prefixes = List(field(2));
  s.nonHtmlTags = List(field(3));
  if (!field(4).empty()) s.lockEmptyPrefixedTags = field(4)[0] == '1';
  s.bRules = fields.size() > 5;
  s.ruleNames = List(field(5));
  s.ruleValues = List(field(6));
  s.ruleFlags = Numbers(field(7));
  if (fields.size() > 8) s.lockBegin = DecodeLoosely(field(8));
  if (fields.size() > 9) s.lockEnd = DecodeLoosely(field(9));
  if (fields.size() > 10) s.translatedValue = DecodeLoosely(field(10));
  return s;
}

// ---------------------------------------------------------------------------
// Checked calls

namespace {

// What a script function promises about its argument count and result.
enum class Convention {
  kUntouched,   // never sets the result
  kCallback,    // the right count succeeds and stores true; a wrong count fails untouched
  kText,        // the text callback: stores true, whatever it returns
  kTextResult,  // a wrong count fails; success makes a string, failure leaves the result untouched
};

struct Rule {
  const char* name;
  Convention convention;
  uint32_t nArgs, nArgsToo;  // the counts accepted, kAnyCount for any
};

constexpr uint32_t kAnyCount = UINT32_MAX;

constexpr Rule kRules[] = {
    {"initialize", Convention::kUntouched, kAnyCount, kAnyCount},
    {"beginPreTranslate", Convention::kUntouched, 4, 7},
    {"endPreTranslate", Convention::kTextResult, 1, 1},
    {"setLineEndingsToMatch", Convention::kTextResult, 2, 2},
    {"replaceTextInsideTag", Convention::kTextResult, 4, 4},
    {"beginPostTranslate", Convention::kUntouched, kAnyCount, kAnyCount},
    {"endPostTranslate", Convention::kTextResult, 5, 6},
    {"cleanup", Convention::kUntouched, kAnyCount, kAnyCount},
    {"directive", Convention::kCallback, 2, 2},
    {"openTagBegin", Convention::kCallback, 2, 2},
    {"openTagEnd", Convention::kCallback, 2, 2},
    {"attribute", Convention::kCallback, 2, 2},
    {"closeTagBegin", Convention::kCallback, 2, 2},
    {"closeTagEnd", Convention::kCallback, 1, 1},
    {"text", Convention::kText, kAnyCount, kAnyCount},
};

const Rule* RuleOf(const std::string& name) {
  for (const Rule& r : kRules)
    if (name == r.name) return &r;
  return nullptr;
}

}  // namespace

FuzzHost::FuzzHost() {
  std::array<void*, qzhost::kTableSlots> table = engine.Table();
  QZ_InitWrapper(table.data(), static_cast<uint32_t>(sizeof table));
  Check(engine.Registrations().size() == 15, "the entry function registers fifteen script functions");
}

qzhost::CallResult FuzzHost::Call(const std::string& name, std::vector<Value> args) {
  const Rule* rule = RuleOf(name);
  Check(rule != nullptr, "a script function named " + name);
  const Value second = args.size() > 1 ? args[1] : kUnset;
  const uint32_t argc = static_cast<uint32_t>(args.size());
  qzhost::CallResult r = engine.Call(name, std::move(args), kUnset);
  const bool bCountAccepted = rule->nArgs == kAnyCount || argc == rule->nArgs || argc == rule->nArgsToo;
  const std::string call = name + " with " + std::to_string(argc) + " arguments";
  if (!bCountAccepted) Check(!r.ok, call + " fails");
  switch (rule->convention) {
    case Convention::kUntouched:
      Check(r.result == kUnset, call + " leaves its result alone");
      break;
    case Convention::kCallback:
      if (bCountAccepted) Check(r.ok && r.result == qzhost::kTrue, call + " succeeds with true as its result");
      else Check(r.result == kUnset, call + " leaves its result alone");
      break;
    case Convention::kText:
      Check(r.result == qzhost::kTrue, call + " stores true as its result");
      break;
    case Convention::kTextResult:
      if (!r.ok) Check(r.result == kUnset, call + " fails with its result untouched");
      // setLineEndingsToMatch hands back its own second argument, whatever
      // value it is, when no ending changes.
      else Check((r.result != kUnset && engine.IsString(r.result)) || (name == "setLineEndingsToMatch" && r.result == second),
                 call + " makes a string");
      break;
  }
  return r;
}

Value FuzzHost::StrList(const std::vector<std::u16string>& texts) {
  std::vector<Value> values;
  for (const std::u16string& t : texts) values.push_back(engine.Str(t));
  return engine.Array(std::move(values));
}

namespace {

// Hands every scanned item to the library's callbacks; the script values of
// each call are dropped once it has returned, as the library keeps none.
class CallbackSink : public qzhost::ScanSink {
 public:
  explicit CallbackSink(FuzzHost& host) : host_(host), mark_(host.engine.Save()) {}

  bool Directive(std::u16string_view text, int32_t at) override {
    return Send("directive", {host_.Str(text), Int(at)});
  }
  bool OpenTagBegin(std::u16string_view name, int32_t at) override {
    return Send("openTagBegin", {host_.Str(name), Int(at)});
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    return Send("attribute", {host_.Str(name), host_.Str(value)});
  }
  bool OpenTagEnd(int32_t end, std::u16string_view closing) override {
    return Send("openTagEnd", {Int(end), host_.Str(closing)});
  }
  bool CloseTagBegin(std::u16string_view name, int32_t at) override {
    return Send("closeTagBegin", {host_.Str(name), Int(at)});
  }
  bool CloseTagEnd(int32_t end) override { return Send("closeTagEnd", {Int(end)}); }
  bool Text(std::u16string_view text, int32_t at) override { return Send("text", {host_.Str(text), Int(at)}); }

 private:
  Value Int(int32_t n) { return host_.engine.Int(n); }
  bool Send(const char* name, std::vector<Value> args) {
    host_.Call(name, std::move(args));
    host_.engine.Release(mark_);
    return true;
  }

  FuzzHost& host_;
  qzhost::Engine::Mark mark_;
};

}  // namespace

bool FuzzHost::Scan(std::u16string_view text) {
  CallbackSink sink(*this);
  return qzhost::ScanPage(text, sink);
}

bool FuzzHost::Label(const Settings& s, std::u16string_view page, std::u16string* labelled) {
  std::vector<Value> args = {Str(s.dirStart), Str(s.dirEnd), StrList(s.prefixes), StrList(s.nonHtmlTags)};
  if (s.bRules) {
    std::vector<Value> flags;
    for (int64_t f : s.ruleFlags) flags.push_back(engine.Int(f));
    args.push_back(StrList(s.ruleNames));
    args.push_back(StrList(s.ruleValues));
    args.push_back(engine.Array(std::move(flags)));
  }
  bool bBegun = Call("beginPreTranslate", std::move(args)).ok;
  if (bBegun) Scan(page);
  qzhost::CallResult r = Call("endPreTranslate", {Str(page)});
  if (!bBegun || !r.ok) return false;
  *labelled = engine.ToText(r.result);
  return true;
}

bool FuzzHost::Merge(const Settings& s, std::u16string_view page, std::u16string_view output, std::u16string* merged) {
  Call("beginPostTranslate", {});
  Scan(output);
  std::vector<Value> args = {Str(page), Str(output), Str(s.lockBegin), Str(s.lockEnd), Str(s.translatedValue)};
  if (s.lockEmptyPrefixedTags >= 0) args.push_back(qzhost::Engine::Bool(s.lockEmptyPrefixedTags != 0));
  qzhost::CallResult r = Call("endPostTranslate", std::move(args));
  if (!r.ok) return false;
  *merged = engine.ToText(r.result);
  return true;
}

void FuzzHost::Close() {
  Call("endPreTranslate", {Str(u"")});
  Call("cleanup", {});
}

void CheckNextTranslationExact() {
  static const std::u16string kPage = u"<p class=\"c\"><%= n %></p>";
  static const std::u16string kLabelled = u"<p qzvx=\"0\"  class=\"c\"><!--QZVX 0 --><%= n %><!--QZVX 1 --></p>";
  static const std::u16string kOutput = u"<p qzvx=\"0\"  class=\"c\"><!--QZVX 0 -->Bob<!--QZVX 1 --></p>";
  static const std::u16string kMerged =
      u"<p class=\"c\"><qz:lock code=\"%3C%25=%20n%20%25%3E\"><qz:invisible><%= n %></qz:invisible>"
      u"<font hilitecolor=\"Dyn Up-to-Date Color\">Bob</font></qz:lock></p>";
  FuzzHost host;
  const Settings asp = PickSettings(2, {});
  std::u16string labelled, merged;
  Check(host.Call("initialize", {}).ok, "initialize succeeds");
  Check(host.Label(asp, kPage, &labelled) && labelled == kLabelled,
        "the next page is labelled as always, not as " + Shown(labelled));
  Check(host.Merge(asp, kPage, kOutput, &merged) && merged == kMerged,
        "the next page merges as always, not as " + Shown(merged));
  host.Call("cleanup", {});
}

}  // namespace qzfuzz
