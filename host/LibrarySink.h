// The scanner sink that forwards every scanned item to the library's scanner
// callbacks, in either pass, and remembers what failed and what the end of
// the page cut off. In the pre pass it tells the library a directive left
// open by the end of the page as PageEnd.h describes.
#ifndef QZHOST_LIBRARYSINK_H
#define QZHOST_LIBRARYSINK_H

#include <string>
#include <utility>
#include <vector>

#include "Engine.h"
#include "PageEnd.h"
#include "Scanner.h"

namespace qzhost {

// Each call's arguments are the engine's reusable argument values
// (Engine::ArgText, ArgInt): a scan makes no value per item. A sink given
// the scanned text to write into hands the library its texts in place: for
// the length of the call, the unit after each text argument is a NUL. Other
// texts are copied when the library reads them. Whatever a call makes in
// the engine besides is dropped once it has returned.
class LibrarySink : public ScanSink {
 public:
  // start and end: the profile's directive characters, given in the pre
  // pass only.
  explicit LibrarySink(Engine& engine, std::u16string_view start = {}, std::u16string_view end = {});
  // The text about to be scanned, which the sink may change during each
  // call and restores before the call returns; null: texts are copied.
  void WriteInto(std::u16string* scanned) { scanned_ = scanned; }

  bool Directive(std::u16string_view text, int32_t offset) override;
  bool OpenTagBegin(std::u16string_view name, int32_t offset) override;
  bool Attribute(std::u16string_view name, std::u16string_view value) override;
  bool OpenTagEnd(int32_t endOffset, std::u16string_view closing) override;
  bool CloseTagBegin(std::u16string_view name, int32_t offset) override;
  bool CloseTagEnd(int32_t endOffset) override;
  bool Text(std::u16string_view text, int32_t offset) override;
  void Cut(Unfinished kind, int32_t offset) override { cuts_.push_back({kind, offset}); }

  // Which callback failed, for the item at which offset; empty while none did.
  const std::string& Failure() const { return failure_; }
  // The constructs the end of the page cut off, in the order the scan met them.
  const std::vector<std::pair<Unfinished, int32_t>>& Cuts() const { return cuts_; }
  // The directive the end of the page left open, once it has been reported.
  bool HasOpenEnd() const { return hasOpenEnd_; }
  const OpenEnd& GetOpenEnd() const { return openEnd_; }

 private:
  Value Text(size_t slot, std::u16string_view text);
  void Restore();
  Value Int(size_t slot, int64_t n) { return engine_.ArgInt(slot, n); }
  bool Send(NativeFn fn, const char* name, int32_t offset, uint32_t argc, Value a, Value b = kNull);

  Engine& engine_;
  Engine::Mark mark_;
  NativeFn directive_, openTagBegin_, attribute_, openTagEnd_, closeTagBegin_, closeTagEnd_, text_;
  int32_t tagOffset_ = 0;  // the "<" of the tag being reported
  std::u16string* scanned_ = nullptr;
  char16_t* ended_[Engine::kArgSlots] = {};  // units made NUL for the call, in the order made
  char16_t saved_[Engine::kArgSlots] = {};   // what they held
  size_t nEnded_ = 0;
  std::string failure_;
  std::vector<std::pair<Unfinished, int32_t>> cuts_;
  std::u16string start_, end_;
  bool hasOpenEnd_ = false;
  OpenEnd openEnd_;
};

}  // namespace qzhost

#endif
