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
  if (!cut || start_.empty()) return Send(directive_, "directive", offset, 2, Text(0, text), Int(1, offset));
  hasOpenEnd_ = true;
  openEnd_ = DescribeOpenEnd(text, start_, end_);
  std::u16string_view told = openEnd_.reportAs.empty() ? text : std::u16string_view(openEnd_.reportAs);
  return Send(directive_, "directive", offset, 2, Text(0, told), Int(1, offset));
}

bool LibrarySink::OpenTagBegin(std::u16string_view name, int32_t offset) {
  tagOffset_ = offset;
  return Send(openTagBegin_, "openTagBegin", offset, 2, Text(0, name), Int(1, offset));
}

bool LibrarySink::Attribute(std::u16string_view name, std::u16string_view value) {
  return Send(attribute_, "attribute", tagOffset_, 2, Text(0, name), Text(1, value));
}

bool LibrarySink::OpenTagEnd(int32_t endOffset, std::u16string_view closing) {
  return Send(openTagEnd_, "openTagEnd", tagOffset_, 2, Int(0, endOffset), Text(1, closing));
}

bool LibrarySink::CloseTagBegin(std::u16string_view name, int32_t offset) {
  tagOffset_ = offset;
  return Send(closeTagBegin_, "closeTagBegin", offset, 2, Text(0, name), Int(1, offset));
}

bool LibrarySink::CloseTagEnd(int32_t endOffset) {
  return Send(closeTagEnd_, "closeTagEnd", tagOffset_, 1, Int(0, endOffset));
}

bool LibrarySink::Text(std::u16string_view text, int32_t offset) {
  return Send(text_, "text", offset, 2, Text(0, text), Int(1, offset));
}

Value LibrarySink::Text(size_t slot, std::u16string_view text) {
  if (!scanned_) return engine_.ArgText(slot, text);
  const char16_t* base = scanned_->data();
  const size_t n = scanned_->size();
  if (text.data() < base || text.data() + text.size() > base + n) return engine_.ArgText(slot, text);
  const size_t end = static_cast<size_t>(text.data() - base) + text.size();
  // The string's own NUL ends a text that reaches its end.
  if (end < n) {
    ended_[nEnded_] = scanned_->data() + end;
    saved_[nEnded_] = *ended_[nEnded_];
    *ended_[nEnded_++] = 0;
  }
  return engine_.ArgText(slot, text, true);
}

// Gives back the units that Text made NUL, last first: two texts may end
// at the same unit, and the first one saved what the unit held.
void LibrarySink::Restore() {
  while (nEnded_ > 0) {
    --nEnded_;
    *ended_[nEnded_] = saved_[nEnded_];
  }
}

bool LibrarySink::Send(NativeFn fn, const char* name, int32_t offset, uint32_t argc, Value a, Value b) {
  if (!fn) {
    Restore();
    failure_ = std::string("the library has no script function ") + name;
    return false;
  }
  Value argv[2] = {a, b};
  Value result = kNull;
  int ok = fn(&engine_, nullptr, argc, argv, &result);
  Restore();
  engine_.Release(mark_);
  if (!ok) {
    failure_ = std::string("the library's ") + name + " failed on the item at offset " + std::to_string(offset);
    return false;
  }
  return true;
}

}  // namespace qzhost
