// Scanned items to the library's scanner callbacks.
#include "LibrarySink.h"

namespace qzhost {

LibrarySink::LibrarySink(Engine& engine, std::u16string_view start, std::u16string_view end)
    : engine_(engine), mark_(engine.Save()), start_(start), end_(end) {
  directive_ = engine.Find("directive");
  openTagBegin_ = engine.Find("openTagBegin");
  attribute_ = engine.Find("attribute");
  openTagEnd_ = engine.Find("openTagEnd");
  closeTagBegin_ = engine.Find("closeTagBegin");
  closeTagEnd_ = engine.Find("closeTagEnd");
  text_ = engine.Find("text");
}

bool LibrarySink::Directive(std::u16string_view text, int32_t offset) {
  bool cut = !cuts_.empty() && cuts_.back() == std::make_pair(Unfinished::kDirective, offset);
  if (!cut || start_.empty()) return Send(directive_, "directive", offset, {Str(text), engine_.Int(offset)});
  hasOpenEnd_ = true;
  openEnd_ = DescribeOpenEnd(text, start_, end_);
  std::u16string_view told = openEnd_.reportAs.empty() ? text : std::u16string_view(openEnd_.reportAs);
  return Send(directive_, "directive", offset, {Str(told), engine_.Int(offset)});
}

bool LibrarySink::OpenTagBegin(std::u16string_view name, int32_t offset) {
  tagOffset_ = offset;
  return Send(openTagBegin_, "openTagBegin", offset, {Str(name), engine_.Int(offset)});
}

bool LibrarySink::Attribute(std::u16string_view name, std::u16string_view value) {
  return Send(attribute_, "attribute", tagOffset_, {Str(name), Str(value)});
}

bool LibrarySink::OpenTagEnd(int32_t endOffset, std::u16string_view closing) {
  return Send(openTagEnd_, "openTagEnd", tagOffset_, {engine_.Int(endOffset), Str(closing)});
}

bool LibrarySink::CloseTagBegin(std::u16string_view name, int32_t offset) {
  tagOffset_ = offset;
  return Send(closeTagBegin_, "closeTagBegin", offset, {Str(name), engine_.Int(offset)});
}

bool LibrarySink::CloseTagEnd(int32_t endOffset) {
  return Send(closeTagEnd_, "closeTagEnd", tagOffset_, {engine_.Int(endOffset)});
}

bool LibrarySink::Text(std::u16string_view text, int32_t offset) {
  return Send(text_, "text", offset, {Str(text), engine_.Int(offset)});
}

bool LibrarySink::Send(NativeFn fn, const char* name, int32_t offset, std::initializer_list<Value> args) {
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

}  // namespace qzhost
