#include "Replay.h"

#include <array>
#include <cstring>
#include <functional>

#include "Main.h"
#include "Pages.h"
#include "Scanner.h"

namespace qzbench {

namespace {
// The replay whose table the library holds.
Replay* gInstalled = nullptr;

ReplayValue* Of(ScriptValue v) { return v == 0 || v == kScriptTrue ? nullptr : reinterpret_cast<ReplayValue*>(v); }
}  // namespace

// The engine operations over replay values; the context is the Replay.
struct ReplayOps {
  static intptr_t Define(void* lib, const char* name, Native fn, int) {
    static_cast<Replay*>(lib)->natives_[name] = fn;
    return 1;
  }
  static int ToInteger(void*, ScriptValue v, intptr_t* out) {
    ReplayValue* r = Of(v);
    *out = r ? r->number : 0;
    return 1;
  }
  static int ToBoolean(void*, ScriptValue v, int32_t* out) {
    ReplayValue* r = Of(v);
    *out = v == kScriptTrue || (r && r->number != 0);
    return 1;
  }
  static int ToObject(void*, ScriptValue v, void** out) {
    *out = Of(v);
    return 1;
  }
  static const char* ClassName(void* obj) { return static_cast<ReplayValue*>(obj)->elements ? "Array" : "String"; }
  static intptr_t ArrayLength(void*, void* obj) {
    const auto* e = static_cast<ReplayValue*>(obj)->elements;
    return e ? static_cast<intptr_t>(e->size()) : 0;
  }
  static int ArrayElement(void*, void* obj, int32_t i, ScriptValue* out) {
    const auto* e = static_cast<ReplayValue*>(obj)->elements;
    if (!e || i < 0 || static_cast<size_t>(i) >= e->size()) return 0;
    *out = (*e)[static_cast<size_t>(i)];
    return 1;
  }
  static const char16_t* ToString(void*, ScriptValue v, int32_t* length) {
    ReplayValue* r = Of(v);
    if (!r || !r->text) {
      *length = 0;
      return u"";
    }
    *length = r->length;
    return r->text;
  }
  static int StringToValue(void* cx, const char16_t* text, size_t length, ScriptValue* out) {
    Replay* replay = static_cast<Replay*>(cx);
    if (!length) length = std::char_traits<char16_t>::length(text);
    replay->result_.assign(text, length);
    *out = kScriptTrue;
    return 1;
  }
};

namespace {

void Install(Replay* replay) {
  if (gInstalled == replay) return;
  std::array<void*, kHostSlotCount> t{};
  t[kSlotLibraryObject] = replay;
  t[kSlotDefineFunction] = reinterpret_cast<void*>(&ReplayOps::Define);
  t[kSlotValueToInteger] = reinterpret_cast<void*>(&ReplayOps::ToInteger);
  t[kSlotValueToBoolean] = reinterpret_cast<void*>(&ReplayOps::ToBoolean);
  t[kSlotValueToObject] = reinterpret_cast<void*>(&ReplayOps::ToObject);
  t[kSlotClassName] = reinterpret_cast<void*>(&ReplayOps::ClassName);
  t[kSlotArrayLength] = reinterpret_cast<void*>(&ReplayOps::ArrayLength);
  t[kSlotArrayElement] = reinterpret_cast<void*>(&ReplayOps::ArrayElement);
  t[kSlotValueToString] = reinterpret_cast<void*>(&ReplayOps::ToString);
  t[kSlotStringToValue] = reinterpret_cast<void*>(&ReplayOps::StringToValue);
  QZ_InitWrapper(t.data(), static_cast<uint32_t>(t.size() * sizeof(void*)));
  gInstalled = replay;
}

// Turns scanned items into events with their argument values made once.
class Recorder : public qzhost::ScanSink {
 public:
  Recorder(std::vector<ReplayEvent>* events, const std::map<std::string, Native>& natives,
           std::function<ScriptValue(std::u16string)> text, std::function<ScriptValue(intptr_t)> number)
      : events_(events), natives_(natives), text_(std::move(text)), number_(std::move(number)) {}

  bool Directive(std::u16string_view t, int32_t o) override { return Add("directive", Str(t), number_(o)); }
  bool OpenTagBegin(std::u16string_view n, int32_t o) override { return Add("openTagBegin", Str(n), number_(o)); }
  bool Attribute(std::u16string_view n, std::u16string_view v) override { return Add("attribute", Str(n), Str(v)); }
  bool OpenTagEnd(int32_t e, std::u16string_view c) override { return Add("openTagEnd", number_(e), Str(c)); }
  bool CloseTagBegin(std::u16string_view n, int32_t o) override { return Add("closeTagBegin", Str(n), number_(o)); }
  bool CloseTagEnd(int32_t e) override {
    events_->push_back({natives_.at("closeTagEnd"), 1, {number_(e), 0}});
    return true;
  }
  bool Text(std::u16string_view t, int32_t o) override { return Add("text", Str(t), number_(o)); }

 private:
  ScriptValue Str(std::u16string_view t) { return text_(std::u16string(t)); }
  bool Add(const char* name, ScriptValue a, ScriptValue b) {
    events_->push_back({natives_.at(name), 2, {a, b}});
    return true;
  }
  std::vector<ReplayEvent>* events_;
  const std::map<std::string, Native>& natives_;
  std::function<ScriptValue(std::u16string)> text_;
  std::function<ScriptValue(intptr_t)> number_;
};

}  // namespace

ScriptValue Replay::Text(std::u16string text) {
  texts_.push_back(std::move(text));
  ReplayValue v;
  v.text = texts_.back().c_str();
  v.length = static_cast<int32_t>(texts_.back().size());
  values_.push_back(v);
  return reinterpret_cast<ScriptValue>(&values_.back());
}

ScriptValue Replay::Number(intptr_t n) {
  ReplayValue v;
  v.number = n;
  values_.push_back(v);
  return reinterpret_cast<ScriptValue>(&values_.back());
}

ScriptValue Replay::Array(std::vector<ScriptValue> elements) {
  arrays_.push_back(std::move(elements));
  ReplayValue v;
  v.elements = &arrays_.back();
  values_.push_back(v);
  return reinterpret_cast<ScriptValue>(&values_.back());
}

bool Replay::Call(const char* name, std::vector<ScriptValue> args) {
  ScriptValue result = 0;
  return natives_.at(name)(this, nullptr, static_cast<uint32_t>(args.size()), args.data(), &result) != 0;
}

bool Replay::RunPre() {
  ScriptValue result = 0;
  if (!natives_["beginPreTranslate"](this, nullptr, static_cast<uint32_t>(preSettings_.size()), preSettings_.data(),
                                     &result))
    return false;
  for (ReplayEvent& e : pre_)
    if (!e.fn(this, nullptr, e.argc, e.argv, &result)) return false;
  return natives_["endPreTranslate"](this, nullptr, 1, &page_, &result) != 0;
}

bool Replay::RunPost() {
  ScriptValue result = 0;
  if (!natives_["beginPostTranslate"](this, nullptr, 0, nullptr, &result)) return false;
  for (ReplayEvent& e : post_)
    if (!e.fn(this, nullptr, e.argc, e.argv, &result)) return false;
  return natives_["endPostTranslate"](this, nullptr, static_cast<uint32_t>(postArgs_.size()), postArgs_.data(),
                                      &result) != 0;
}

bool Replay::Record(const std::u16string& page, const qzhost::Profile& profile) {
  gInstalled = nullptr;
  Install(this);
  auto texts = [this](const std::vector<std::u16string>& list) {
    std::vector<ScriptValue> values;
    for (const std::u16string& t : list) values.push_back(Text(t));
    return Array(std::move(values));
  };
  preSettings_ = {Text(profile.directiveStart), Text(profile.directiveEnd), texts(profile.tagPrefixes),
                  texts(profile.nonHtmlTags)};
  if (profile.attributeRules) {
    std::vector<ScriptValue> flags;
    for (int64_t f : profile.ruleNonHtml) flags.push_back(Number(static_cast<intptr_t>(f)));
    preSettings_.push_back(texts(profile.ruleNames));
    preSettings_.push_back(texts(profile.ruleValues));
    preSettings_.push_back(Array(std::move(flags)));
  }
  page_ = Text(page);
  auto text = [this](std::u16string t) { return Text(std::move(t)); };
  auto number = [this](intptr_t n) { return Number(n); };
  Recorder pre(&pre_, natives_, text, number);
  if (!qzhost::ScanPage(page, pre) || !Call("initialize", {}) || !RunPre()) return false;
  ScriptValue output = Text(StandInServer(result_));
  Recorder post(&post_, natives_, text, number);
  if (!qzhost::ScanPage(texts_.back(), post)) return false;
  postArgs_ = {page_, output, Text(profile.lockBeginFormat), Text(profile.lockEndText), Text(profile.translatedValue)};
  if (profile.lockEmptyPrefixedTags >= 0) postArgs_.push_back(Number(profile.lockEmptyPrefixedTags));
  bool ok = RunPost();
  Call("cleanup", {});
  return ok;
}

bool Replay::Run() {
  Install(this);
  bool ok = Call("initialize", {}) && RunPre() && RunPost();
  Call("cleanup", {});
  return ok;
}

}  // namespace qzbench
